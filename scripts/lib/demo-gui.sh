# scripts/demo --gui (sourced by scripts/demo, in the project's root, with
# processes.sh loaded and the build in build/): installs the library into a
# temporary prefix, builds examples/desktop-chat against it as any
# application would, starts a private broker and the development server,
# and opens two chat windows, each on a message store of its own in the
# temporary folder: alice says hello to bob, bob's window answers.
# On the user's display the windows stay until both are closed (or Ctrl-C);
# without a display they run under a private Xvfb and each saves a
# screenshot in build/demo/, whose paths the demo prints.

work=$(mktemp -d "${TMPDIR:-/tmp}/pushchat-demo-gui.XXXXXX")
cleanup() {
  local status=$?
  stop_tracked
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
export XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data"

echo "== installing the library into a temporary prefix and building examples/desktop-chat against it"
cmake --build build --target pushchat pushchat_devserver -j "$(nproc)" | tail -n 1
cmake --install build --prefix "$work/prefix" >/dev/null
cmake -S examples/desktop-chat -B "$work/desktop-chat" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/desktop-chat" | tail -n 1
chat="$work/desktop-chat/desktop-chat"

start_broker "$work"
start_devserver "$work" build/tools/pushchat-devserver/pushchat-devserver
echo "== mosquitto on 127.0.0.1:$broker_port, pushchat-devserver with HTTP history on :$http_port"

shots=()
if [ -z "${DISPLAY:-}" ]; then
  Xvfb -displayfd 3 -screen 0 1300x440x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
  track_pid $!
  wait_for "$work/display" "" 10 && sleep 0.2
  export DISPLAY=":$(head -n 1 "$work/display")"
  mkdir -p build/demo
  stamp=$(date +%Y%m%d-%H%M%S)
  shots=("$root/build/demo/desktop-chat-bob-$stamp.png" "$root/build/demo/desktop-chat-alice-$stamp.png")
  echo "== no display: the windows run under Xvfb ($DISPLAY) and save screenshots"
fi
common=(--port "$broker_port" --level 5 --http-base "http://127.0.0.1:$http_port")
bob=("$chat" "${common[@]}" --user bob --device gui-bob --store "$work/bob.db" \
  --reply "Hi Alice, nice to see you here." -geometry 620x420+650+0)
alice=("$chat" "${common[@]}" --user alice --device gui-alice --store "$work/alice.db" \
  --chat bob --say "Hello Bob, this is Alice." -geometry 620x420+0+0)
if [ ${#shots[@]} -gt 0 ]; then
  bob+=(--screenshot "${shots[0]}" --quit)
  alice+=(--screenshot "${shots[1]}" --quit)
fi
"${bob[@]}" >"$work/bob.log" 2>&1 &
bob_pid=$!
track_pid "$bob_pid"
sleep 1 # bob is online before alice speaks
"${alice[@]}" >"$work/alice.log" 2>&1 &
alice_pid=$!
track_pid "$alice_pid"
echo "== alice's and bob's windows are open: alice says hello, bob's window answers"
status=0
wait "$alice_pid" || status=$?
wait "$bob_pid" || status=$?
if [ ${#shots[@]} -gt 0 ]; then
  for shot in "${shots[@]}"; do
    [ -s "$shot" ] || { echo "demo: no screenshot $shot" >&2; exit 1; }
    echo "== screenshot: $shot"
  done
fi
[ "$status" -eq 0 ] || { echo "demo: a window ended with status $status" >&2; exit 1; }
echo "== demo passed"
