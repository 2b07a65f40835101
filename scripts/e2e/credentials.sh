#!/usr/bin/env bash
# The agent forwards by TLS to a server that asks for a certificate, a token and a header. The token
# is wrong at first, and changed by SIGHUP. A second destination, to the same server without a
# certificate, gets nothing and holds up nobody. No secret is told anywhere.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

TOKEN=right-secret-token

# make_certificates: of an authority, and by it of the server and of the agent.
make_certificates() {
  local name
  (
    cd "$tmp"
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=authority" \
      -keyout ca.key -out ca.pem
    for name in server agent; do
      openssl req -newkey rsa:2048 -nodes -subj "/CN=$name" -keyout "$name.key" -out "$name.csr"
      openssl x509 -req -days 2 -in "$name.csr" -CA ca.pem -CAkey ca.key -CAcreateserial \
        -extfile <(echo "subjectAltName = IP:127.0.0.1") -out "$name.pem"
    done
  ) >"$tmp/openssl.log" 2>&1
}

# of <destination> <number>: one of its numbers.
of() {
  get "$agent/metrics" | sed -n "s/^tidegate_agent_$2{destination=\"$1\"} //p"
}

# Those that the services have sent, without the agent's own.
lines_taken() { wc -l <"$tmp/taken"; }

all_forwarded() {
  (($(of central forward_queue_points) == 0 && $(of central forwarded_points_total) > 0 &&
    $(of central forwarded_points_total) == $(own points_total)))
}

tells_nothing() {
  ! grep -q "$1" "$tmp/agent.log" || die "the log tells a secret"
  ! get "$agent/metrics" | grep -q "$1" || die "the page tells a secret"
  ! tr '\0' ' ' <"/proc/${pids[agent]}/cmdline" | grep -q "$1" || die "the process tells a secret"
}

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}" openssl python3
build release tidegate-agent demo_service

step "a server that asks for a certificate, a token and a header"
make_certificates
pick_port && server_port=$port
start server python3 "$(dirname "${BASH_SOURCE[0]}")/tls_receiver.py" "$tmp" "$server_port" "$TOKEN"
await "the start of the server" 60 grep -q ready "$tmp/server.out"

cat >"$tmp/conf" <<END
forward-interval = 0.2
[destination.central]
type = "influx"
url = "https://127.0.0.1:$server_port/write"
header = "X-Scope: team-secret"
bearer-file = "$tmp/token"
ca-file = "$tmp/ca.pem"
client-cert = "$tmp/agent.pem"
client-key = "$tmp/agent.key"
interval = 0.2
spread = false
[destination.stranger]
type = "influx"
url = "https://127.0.0.1:$server_port/write"
ca-file = "$tmp/ca.pem"
spread = false
END
chmod 600 "$tmp/conf"
echo wrong-secret-token >"$tmp/token"
pick_port && agent=http://127.0.0.1:$port
start agent "$ROOT/build/release/tools/agent/tidegate-agent" --config "$tmp/conf" \
  --socket "$tmp/sock" --http "127.0.0.1:$port" --drain 1
await "the start of the agent" 60 test -S "$tmp/sock"
"$ROOT/build/release/examples/demo_service" "$tmp/sock" --seconds 3 >"$tmp/service.out" 2>&1
await "an answer to the wrong token" 20 grep -q "HTTP 401" "$tmp/agent.log"
await "an answer to the stranger" 20 grep -q "cannot forward.*no reply\|connection broke" \
  "$tmp/agent.log"
[[ $(of central forwarded_points_total) == 0 ]] || die "the server took a wrong token"

step "the token changes"
echo "$TOKEN" >"$tmp/token"
kill -HUP "${pids[agent]}"
await "the change" 20 grep -q "reloaded, changed: central" "$tmp/agent.log"
await "the forwarding of all points" 60 all_forwarded
(($(lines_taken) > 0)) || die "the server has nothing"
[[ $(of stranger forwarded_points_total) == 0 ]] || die "a stranger got in"
[[ $(of stranger forward_queue_points) == $(own points_total) ]] || die "the stranger's points are gone"
for secret in "$TOKEN" wrong-secret-token team-secret; do
  tells_nothing "$secret"
done
printf '  %-52s %s\n' "points by TLS, and those of the one without a certificate" \
  "$(of central forwarded_points_total), $(of stranger forwarded_points_total)"
stop agent
[[ $stop_status == 0 ]] || die "the agent ended with $stop_status"
grep -q "unforwarded points=" "$tmp/agent.log" || die "the agent does not tell its loss"
