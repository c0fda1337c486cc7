# What the scripts share; read by them, never run.

set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# A clone in another place finds in the compiler cache what this one has built.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1

# note TEXT...: to standard error, which never carries events.
note() {
  echo "script/${0##*/}: $*" >&2
}

# bootstrap GROUP...: installs what is missing.
bootstrap() {
  [ -n "${ORLO_SKIP_BOOTSTRAP:-}" ] || "$root/script/bootstrap" "$@"
}

# build PRESET TARGET...: configures the preset and builds the targets. Its output goes to
# build/PRESET/build.log; the end of it is shown when something fails. Scripts that build the same
# preset at the same time wait for each other.
build() {
  local preset=$1
  shift
  local directory=$root/build/$preset
  mkdir -p "$directory"
  if ! (
    flock 9
    exec > "$directory/build.log" 2>&1 < /dev/null
    cd "$root"
    cmake --preset "$preset" && cmake --build --preset "$preset" --target "$@" 9>&-
  ) 9> "$directory/.lock"; then
    tail -n 60 "$directory/build.log" >&2
    note "the build failed; all of its output is in $directory/build.log"
    exit 1
  fi
}

# start_wine PREFIX: makes a fresh Wine prefix for the commands that follow; it is ended with the
# script. A program without anything to do keeps Wine's server and services running: every other
# would start its own, which takes longer than most tests, and leave them its output to hold open.
start_wine() {
  export WINEPREFIX=$1 WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=mscoree,mshtml=
  unset DISPLAY
  rm -rf "$WINEPREFIX"
  mkdir -p "$WINEPREFIX"
  note "making a Wine prefix"
  wineboot -i > "$WINEPREFIX/wineboot.log" 2>&1 < /dev/null
  mkfifo "$WINEPREFIX/idle"
  wine cmd < "$WINEPREFIX/idle" > /dev/null 2>&1 &
  exec 8> "$WINEPREFIX/idle"
  trap 'exec 8>&-; end_wine wineserver' EXIT
}

# end_wine COMMAND...: ends the server by the command that calls it, which fails if there is none.
end_wine() {
  "$@" -k || note "Wine's server had ended by itself"
}
