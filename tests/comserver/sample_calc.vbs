' Creates the sample component by ProgID and calls it through IDispatch.
' The sink is an instance of a script class with a Sub of the event's name.
Class OverflowSink
    Public Sub Overflow(a, b)
        WScript.Echo "event Overflow " & a & " " & b
    End Sub
End Class

Set calc = CreateObject("VexalSample.Calculator")
calc.Listen New OverflowSink
WScript.Echo calc.Add(2, 40)
WScript.Echo calc.Scale(1.5, 2.5)
WScript.Echo calc.Describe("pi", 3.25)
On Error Resume Next
calc.Add 2147483647, 1
WScript.Echo "overflow " & Hex(Err.Number)
