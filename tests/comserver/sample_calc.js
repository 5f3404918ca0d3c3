// Creates the sample component by ProgID and calls it through IDispatch.
// The sink is a plain script object whose method carries the event's name.
var calc = new ActiveXObject("VexalSample.Calculator");
calc.Listen({ Overflow: function (a, b) { WScript.Echo("event Overflow " + a + " " + b); } });
WScript.Echo(calc.Add(2, 40));
WScript.Echo(calc.Scale(1.5, 2.5));
WScript.Echo(calc.Describe("pi", 3.25));
try {
    calc.Add(2147483647, 1);
} catch (e) {
    WScript.Echo("overflow " + (e.number >>> 0).toString(16).toUpperCase());
}
