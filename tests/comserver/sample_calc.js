// Creates the sample component by ProgID and calls it through IDispatch.
var calc = new ActiveXObject("VexalSample.Calculator");
WScript.Echo(calc.Add(2, 40));
WScript.Echo(calc.Scale(1.5, 2.5));
WScript.Echo(calc.Describe("pi", 3.25));
try {
    calc.Add(2147483647, 1);
} catch (e) {
    WScript.Echo("overflow " + (e.number >>> 0).toString(16).toUpperCase());
}
