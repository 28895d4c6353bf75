# What the scripts of this directory share; sourced, never run. Puts the caller into the project's top directory
# and gives it $workDir, a directory of its own that is gone when it ends.

cd "$(dirname "${BASH_SOURCE[0]}")/.."
exec </dev/null  # nothing below asks a question, and a closed standard input would hand its number to a file
export LC_ALL=C

workDir=$(mktemp -d)
trap 'rm -rf "$workDir"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  echo "$*" >&2
  exit 1
}

# step TEXT COMMAND...: says what is done and does it. What the command prints is kept in $workDir/step.log and
# shown only when it fails, which ends the script.
step() {
  local text=$1 status
  shift
  echo "$text"
  set +e  # and not "||", under which a function would run on past its first failure
  (set -e; "$@") >"$workDir/step.log" 2>&1
  status=$?
  set -e
  if ((status != 0)); then
    cat "$workDir/step.log" >&2
    fail "failed (status $status): $text"
  fi
}

# build PRESET: configures and builds a preset.
build() {
  step "configuring build/$1" cmake --preset "$1"
  step "building build/$1" cmake --build --preset "$1" -- --quiet
}

# Leaves out what passed: a failure must not be searched for.
quietCtest() {
  ctest --preset "$1" | sed -E '/^ +Start +[0-9]+:| Passed +[0-9.]+ sec$/d'
}

# runTests PRESET: runs the tests of a preset and ends with the summary of what passed, failed or was skipped.
runTests() {
  step "testing build/$1" quietCtest "$1"
  sed -n '/tests passed/,$p' "$workDir/step.log" | sed '/^$/d'
}

# Processes that a script starts in $workDir, by name, and that never outlive it.
declare -A processes=()

# start NAME COMMAND...: what it says goes to NAME.log.
start() {
  setpriv --pdeathsig KILL -- "${@:2}" >>"$1.log" 2>&1 &
  processes[$1]=$!
  disown
}

# waitFor NAME URL [CURL_ARGUMENT...]: until the process of that name answers.
waitFor() {
  local deadline=$((SECONDS + 60))
  while ((SECONDS < deadline)); do
    curl -s -m 5 -o /dev/null "${@:3}" "$2" && return
    if ! kill -0 "${processes[$1]}" 2>/dev/null; then
      cat ./*.log >&2
      fail "$1 has ended"
    fi
    sleep 0.05
  done
  cat ./*.log >&2
  fail "$1 does not come"
}

stopProcesses() {
  local name
  kill -9 "${processes[@]}" 2>/dev/null || true
  for name in "${!processes[@]}"; do
    while kill -0 "${processes[$name]}" 2>/dev/null; do sleep 0.01; done
  done
}

# choosePort NAME: into the variable, a port that nobody listens on, and below those that outgoing connections are given:
# one of these may be anybody's at the moment when a server wants to listen on it.
chosenPorts=""
choosePort() {
  local port
  while port=$((10000 + RANDOM % 22000))
    [[ " $chosenPorts " == *" $port "* ]] || (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
  chosenPorts+=" $port"
  printf -v "$1" %s "$port"
}
