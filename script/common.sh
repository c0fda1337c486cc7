# What the scripts share; read by them, never run.

set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# note TEXT...: to standard error, which never carries events.
note() {
  echo "script/${0##*/}: $*" >&2
}

# bootstrap GROUP...: installs what is missing.
bootstrap() {
  [ -n "${ORLO_SKIP_BOOTSTRAP:-}" ] || "$root/script/bootstrap" "$@"
}

# build PRESET TARGET...: configures the preset and builds the targets. Its output goes to
# build/PRESET/build.log; the end of it is shown when something fails.
build() {
  local preset=$1
  shift
  local log=$root/build/$preset/build.log
  mkdir -p "${log%/*}"
  if ! (cd "$root" && cmake --preset "$preset" && cmake --build --preset "$preset" --target "$@") \
    > "$log" 2>&1; then
    tail -n 60 "$log" >&2
    note "the build failed; all of its output is in $log"
    exit 1
  fi
}
