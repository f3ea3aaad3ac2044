# Shell helpers shared by the project's scripts (source it; needs bash).
#
#   track_pid PID          stop PID (SIGTERM, then wait) when the script exits
#   wait_for FILE TEXT S   wait up to S seconds for FILE to contain TEXT
#   free_port              print a free TCP port on 127.0.0.1
#   start_broker DIR       start a private mosquitto on a free loopback port
#                          (config and log in DIR); sets broker_port and
#                          broker_pid
#   start_devserver DIR BIN [ARG...]
#                          start the development server BIN on that broker
#                          (on others with --broker ARGs),
#                          its HTTP service on a free port (lines in
#                          DIR/server.jsonl, diagnostics in DIR/server.err);
#                          waits for it to be ready and sets http_port
#
# The caller sets `trap stop_tracked EXIT` (or calls stop_tracked from its
# own exit handler).

tracked_pids=()

track_pid() {
  tracked_pids+=("$1")
}

# Stops the tracked processes, last started first.
stop_tracked() {
  local i pid
  for ((i = ${#tracked_pids[@]} - 1; i >= 0; i--)); do
    pid=${tracked_pids[$i]}
    if kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  tracked_pids=()
}

wait_for() {
  local file=$1 text=$2 tenths=$(($3 * 10))
  while ! grep -qF -- "$text" "$file" 2>/dev/null; do
    tenths=$((tenths - 1))
    if [ "$tenths" -le 0 ]; then
      return 1
    fi
    sleep 0.1
  done
}

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

start_broker() {
  local dir=$1
  broker_port=$(free_port)
  {
    echo "listener $broker_port 127.0.0.1"
    echo "allow_anonymous true"
    echo "set_tcp_nodelay true"
    echo "max_queued_messages 100000"
    echo "max_inflight_messages 0"
    echo "log_dest stderr"
    if [ "$(id -u)" -eq 0 ]; then
      echo "user root"
    fi
  } >"$dir/mosquitto.conf"
  mosquitto -c "$dir/mosquitto.conf" >"$dir/mosquitto.log" 2>&1 &
  broker_pid=$!
  track_pid "$broker_pid"
  if ! wait_for "$dir/mosquitto.log" " running" 5; then
    echo "the broker did not start:" >&2
    cat "$dir/mosquitto.log" >&2
    return 1
  fi
}

start_devserver() {
  local dir=$1 bin=$2
  shift 2
  local target=(--port "${broker_port:-}")
  case " $* " in *" --broker "*) target=() ;; esac
  "$bin" "${target[@]}" --http-port 0 "$@" >"$dir/server.jsonl" 2>"$dir/server.err" &
  track_pid $!
  if ! wait_for "$dir/server.jsonl" '"event":"ready"' 10; then
    echo "the development server did not start:" >&2
    cat "$dir/server.err" >&2
    return 1
  fi
  http_port=$(sed -n 's/.*"http_port":\([0-9]*\).*/\1/p' "$dir/server.jsonl" | head -n 1)
}
