' Creates the sample component by ProgID and calls it through IDispatch.
Set calc = CreateObject("VexalSample.Calculator")
WScript.Echo calc.Add(2, 40)
WScript.Echo calc.Scale(1.5, 2.5)
WScript.Echo calc.Describe("pi", 3.25)
On Error Resume Next
calc.Add 2147483647, 1
WScript.Echo "overflow " & Hex(Err.Number)
