' Calls every method of VexalGenTest.All through IDispatch: in values,
' variables passed by reference (and values) for in/out, VBScript arrays,
' Get's several out values as one combined array, a component's error,
' and a script class as event listener.
Class Listener
    Public Sub Ping(n, text)
        WScript.Echo "ping " & n & " " & text
    End Sub
End Class

Function Which(x)
    Which = "?"
    If x Is a Then Which = "a"
    If x Is b Then Which = "b"
End Function

Function List(items)
    Dim k
    List = "(" & (UBound(items) + 1) & ")"
    For k = 0 To UBound(items)
        If IsObject(items(k)) Then List = List & " " & Which(items(k)) Else List = List & " " & items(k)
    Next
End Function

Set all = CreateObject("VexalGenTest.All")
Set a = CreateObject("VexalGenTest.All")
Set b = CreateObject("VexalGenTest.All")

all.Put 7, 1.5, 2.25, "seven", a
n = 8 : f = 2.5 : d = -0.5 : s = "eight" : Set x = b
all.Swap n, f, d, s, x
WScript.Echo "swap", n, f, d, s, Which(x)
WScript.Echo "get" & List(all.Get())
all.Swap (n), (f), (d), (s), Nothing ' by value: nothing is written back
WScript.Echo "by value", n, f, d, s, Which(x)

all.PutArrays Array(1, 2, 3), Array(0.5), Array(1.25, 2.5, 3.75, 5), Array("a", "bc"), Array(a, b)
ns = Array(9, 8) : fs = Array(4.5, -1, 0.25) : ds = Array() : ss = Array("de", "f", "ghi") : xs = Array(b)
r = all.SwapArrays(ns, fs, ds, ss, xs)
WScript.Echo "swap" & List(ns) & List(fs) & List(ds) & List(ss) & List(xs) & List(r)
r = all.GetArrays()
WScript.Echo "get" & List(r(0)) & List(r(1)) & List(r(2)) & List(r(3)) & List(r(4))

all.Listen New Listener
all.Fire 5, "five"
On Error Resume Next
all.Fire -3, "none"
WScript.Echo "fire " & Hex(Err.Number)
On Error Goto 0
all.Listen Nothing
all.Fire 6, "unheard"
