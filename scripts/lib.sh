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
