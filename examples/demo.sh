#!/usr/bin/env bash
# The vexal demo (./build.sh demo): the sample component library reached
# from kit code, from a script through COM, and a COM object in another
# process reached from kit code. Each step runs Windows programs under Wine
# in the build tree's private prefix, prints what they print and the lines
# of the runtime's trace log that show the road the request took, and stops
# the demo with status 1 when something is not as described.
#
#   examples/demo.sh [build folder]      (default: build)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build}" && pwd)
export VEXAL_BUILD_ROOT=$build
cd "$build/bin"
traces=demo-trace # under bin, where the programs run
rm -rf "$traces" && mkdir "$traces"

fail() {
  echo "  FAILED: $*"
  exit 1
}

# run LOG PROGRAM [ARGS...]: runs a Windows program with its trace log in
# $traces/LOG and its output indented.
run() {
  local log=$1
  shift
  VXLLOGNAME="$traces/$log" "$here/../cmake/wine-run.sh" "$@" | tr -d '\r' | sed 's/^/    /'
}

# road LOG PROCESS PATTERN...: the lines of a trace log that match any of
# the patterns (extended regular expressions), in the order written. Each
# pattern must match a line: if one does not, the request took another road.
road() {
  local log="$traces/$1" process=$2 pattern all=""
  shift 2
  [ -f "$log" ] || fail "no trace log $log"
  for pattern in "$@"; do
    tr -d '\r' <"$log" | grep -Eq -e "$pattern" || fail "no line of $log matches $pattern"
    all+="${all:+|}$pattern"
  done
  echo "  trace log of $process:"
  tr -d '\r' <"$log" | grep -E -e "$all" | sed 's/^/    | /'
}

registered=0
unregister() {
  run unregister-dll.log regsvr32 /s /u vxsample.dll >/dev/null &&
    run unregister-exe.log vxsampleserver.exe /UnregServer >/dev/null
}
# A failed step still leaves the prefix's registry as it found it.
trap '[ $registered = 0 ] || unregister >/dev/null 2>&1' EXIT

cat <<'EOF'
vexal demo
==========
The sample component library vxsample.dll (examples/comserver) is one IDL
file and one C++ class: vexalgen generated the rest from the IDL's type
library (the kit tables of the class "VexalSample.Calculator" and its
interfaces ICalculator and IGreeter, the COM wrappers and kit proxies of
every form, and the entry points). So the DLL is an in-process COM server of
the class and the wrapper library of its interfaces. vxsampleserver.exe
serves the same component as "VexalSample.RemoteCalculator" from a process of
its own.
EOF
echo "Whole trace logs: $PWD/$traces"
echo

echo "[1] Register the servers: regsvr32 vxsample.dll, vxsampleserver /RegServer"
registered=1
run register-dll.log regsvr32 /s vxsample.dll || fail "regsvr32 vxsample.dll"
run register-exe.log vxsampleserver.exe /RegServer || fail "vxsampleserver /RegServer"
road register-dll.log regsvr32.exe '^vxl_com_registerserver: component' '^vxl_com_wrapper_register\('
road register-exe.log vxsampleserver.exe '^vxl_com_registerserver: component'
echo "  The class, its ProgID and type library are in the registry, and vxsample.dll"
echo "  is recorded as the wrapper library of ICalculator and IGreeter."
echo

echo "[2] A kit client creates \"VexalSample.Calculator\" by name and calls it"
echo "  (examples/client/calc_client.cpp)"
run client.log calc_client.exe VexalSample.Calculator || fail "calc_client VexalSample.Calculator"
road client.log calc_client.exe '^vxl_com_register$' '^vxl_com_getclassobject' '^createclassfactory ' '^encapsulate' \
  '^getinterface\(.*, I'
cat <<'EOF'
  No kit class of that name was registered in the client, so the runtime
  asked COM for the class object of the ProgID: that loaded vxsample.dll,
  which registered its kit class as it loaded (vxl_com_register). The class
  factory was built once; then the object was made (encapsulate) and every
  call went from a slot through a generated stub straight into the
  component's method, with no COM in between.

EOF

echo "[3] A JScript file creates \"VexalSample.Calculator\" by ProgID through COM"
echo "  (cscript examples/client/calc_client.js)"
run script.log cscript.exe //nologo calc_client.js || fail "calc_client.js"
road script.log cscript.exe '^vxl_com_getclassobject' '^CFactory::CreateInstance' '^encapsulate' \
  '^vxl_wrap\(.*, com\)' '^vxl_wrap\(.*, comS\)' '^vxl_com_gettypeinfo' '^trn_delete'
cat <<'EOF'
  COM called vxsample.dll's DllGetClassObject, which handed the request to
  the runtime: its class object (CFactory) made the kit object and wrapped
  ICalculator for COM ("com"), and the script's IDispatch queries got the
  dual form ("comS"), whose generated IDispatch read each argument with the
  runtime's variant functions. The component kept the script's sink behind
  a kit proxy and called its Overflow event like any kit method; the proxy
  delivered it by name, through the type information of ICalculator's
  events.
  When the script let go, each COM wrapper removed its row and released
  the kit object.

EOF

echo "[4] The kit client creates the COM object \"VexalSample.RemoteCalculator\" by"
echo "    ProgID and calls it through its kit proxies"
run client-remote.log calc_client.exe VexalSample.RemoteCalculator ||
  fail "calc_client VexalSample.RemoteCalculator"
road client-remote.log calc_client.exe '^createclassfactory .* = <none>' '^vxl_com_createinstance' '-->' \
  '^vxl_com_wrapper_tryload\(\) loading' '^createclassfactory I.*_proxy' '^trn_(insert|delete)'
road client-remote.log.server "vxsampleserver.exe, started by COM" \
  '^vxl_com_getclassobject' '^CFactory::CreateInstance' '^vxl_wrap\([^)]'
cat <<'EOF'
  This time no library registers a kit class of that name, so the request
  went to COM, which started vxsampleserver.exe. The runtime put the COM
  interface behind a kit proxy (class IGreeter_comS_proxy, from the wrapper
  library vxsample.dll, which it found in the registry and loaded), and
  getinterface gave the ICalculator proxy of the same object. The kit
  client is the same code as in step 2; its calls now cross to the server
  and back, with the component's own status -1 arriving as -1.

EOF

echo "[5] Unregister both servers"
registered=0
unregister || fail "unregistering"
road unregister-dll.log regsvr32.exe '^vxl_com_unregisterserver'
for key in 'HKCR\VexalSample.Calculator' 'HKCR\VexalSample.RemoteCalculator' \
  'HKLM\Software\Quelt\vexa\interfaces\ICalculator-com'; do
  if run reg.log reg query "$key" >/dev/null 2>&1; then
    fail "$key is still in the registry"
  fi
done
echo "  The ProgIDs and the wrapper-library entries are gone from the registry."
echo
echo "demo passed"
