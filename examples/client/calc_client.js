// A script client of the sample component: creates it by its ProgID through
// COM, calls it through IDispatch and receives its Overflow event.
//
//   cscript //nologo calc_client.js     (once vxsample.dll is registered)
//
// Exits with 1 when a call does not give what the component promises.
var failures = 0;
function report(call, value, expected) {
    WScript.Echo(call + " = " + value);
    if (value !== expected) {
        WScript.Echo("  (expected " + expected + ")");
        failures++;
    }
}

var calc = new ActiveXObject("VexalSample.Calculator");

// Any script object with a method of the event's name can be the sink.
var overflows = 0;
calc.Listen({
    Overflow: function (a, b) {
        overflows++;
        WScript.Echo("event Overflow(" + a + ", " + b + ") reached the script's sink");
    }
});

report("calc.Add(2, 40)", calc.Add(2, 40), 42);
report("calc.Scale(1.5, 2.5)", calc.Scale(1.5, 2.5), 3.75);
report("calc.Describe(\"pi\", 3.25)", calc.Describe("pi", 3.25), "pi = 3.25");

// The component's own status -1 arrives as an HRESULT of the interface's
// own range (FACILITY_ITF), after the event.
try {
    calc.Add(2147483647, 1);
    report("calc.Add(2147483647, 1)", "no error", "an error");
} catch (e) {
    report("calc.Add(2147483647, 1) throws", (e.number >>> 0).toString(16).toUpperCase(), "800401FF");
}
report("events received", overflows, 1);

// Quitting would skip the release of the component, so only a failure quits.
if (failures)
    WScript.Quit(1);
