# shellcheck shell=bash disable=SC2034,SC2154 # the scripts that source this file use its variables
# Shared by the scripts of this folder: source it, do not run it. They run real parts beside each
# other. The Debian packages of those are only unpacked, into a scratch folder.

source "$(dirname "${BASH_SOURCE[0]}")/../lib.sh"

tmp=$(mktemp -d /tmp/tidegate-e2e.XXXXXX)
declare -A pids=()
cleanup() {
  local status=$?
  if ((status != 0)); then
    tail -n 10 "$tmp"/*.log >&2 || true
  fi
  for name in "${!pids[@]}"; do
    kill -KILL "${pids[$name]}" 2>/dev/null || true
  done
  { wait; } 2>/dev/null # bash says who was killed
  rm -rf "$tmp"
}
trap cleanup EXIT

# start <name> <command...>: in the background; what it prints on standard error goes to <name>.log.
start() {
  local name=$1
  shift
  "$@" >"$tmp/$name.out" 2>>"$tmp/$name.log" </dev/null &
  pids[$name]=$!
}

# stop <name> [signal]: and waits for its end. Leaves its exit status in stop_status.
stop() {
  stop_status=0
  kill "-${2:-TERM}" "${pids[$1]}"
  wait "${pids[$1]}" || stop_status=$?
  unset "pids[$1]"
}

# pick_port: sets port to one of loopback on which nobody listens, below those that the kernel gives
# to clients.
pick_port() {
  while port=$((20000 + RANDOM % 12000)) && (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do
    :
  done
}

# await <what> <seconds> <command...>: until it succeeds.
await() {
  local what=$1 end=$((SECONDS + $2))
  shift 2
  until "$@" 2>/dev/null; do
    ((SECONDS < end)) || die "$what did not come about"
    sleep 0.2
  done
}

get() { curl -sSf --max-time 10 "$@"; }

# --- the parts ---

# fetch_packages: into root, unless PARTS is the root of a script that has them.
fetch_packages() {
  if [[ -n ${PARTS:-} ]]; then
    ln -s "$PARTS" "$tmp/root"
    return
  fi
  step "fetching Debian's packages of VictoriaMetrics and Prometheus"
  local package
  mkdir "$tmp/packages" "$tmp/root"
  (
    cd "$tmp/packages"
    quietly apt-get download -q victoria-metrics prometheus || die "try apt-get update"
  )
  for package in "$tmp"/packages/*.deb; do
    dpkg -x "$package" "$tmp/root"
  done
}

# Without the offset points stay unseen for 30 s. Deduplication makes a repeated batch harmless.
start_database() {
  start victoria "$tmp/root/usr/bin/victoria-metrics" -httpListenAddr="127.0.0.1:$vm_port" \
    -storageDataPath="$tmp/victoria" -search.latencyOffset=0s -dedup.minScrapeInterval=1ms
  await "the start of VictoriaMetrics" 60 get -o "$tmp/ignored" "$vm/health"
}

# --- what they say ---

# own <name>: the sum of the samples of one of the agent's own metrics.
own() {
  get "$agent/metrics" | awk -v name="tidegate_agent_$1" '
    { split($1, part, "{") } part[1] == name { sum += $2; found = 1 }
    END { if (!found) exit 1; print sum }'
}

# ask <base url> <query>: the one value of a query over all that there is, as a number.
ask() {
  get --data-urlencode "query=$2" --data-urlencode "time=$((EPOCHSECONDS + 1))" "$1/api/v1/query" |
    jq -e '.data.result | if length == 1 then .[0].value[1] | tonumber else null end'
}

# expect <what> <base url> <query> <number>: polls, as a scrape or a merge can be under way.
expect() {
  local answer=none end=$((SECONDS + 15))
  until answer=$(ask "$2" "$3" 2>/dev/null) && same "$answer" "$4"; do
    ((SECONDS < end)) || die "$1 is $answer instead of $4, by the query $3"
    sleep 0.5
  done
  printf '  %-52s %s\n' "$1" "$answer"
}

same() { awk -v a="$1" -v b="$2" 'BEGIN { d = a - b; exit !(d * d <= 1e-18 * b * b) }'; }
