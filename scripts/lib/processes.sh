# shellcheck shell=bash
# Programs run side by side in a runtime directory of their own: one place for what they say, one clean-up for all.
#
# After begin_transcript, `directory` is a private directory and $XDG_RUNTIME_DIR lies in it; everything that is written
# to descriptor 3 goes to standard output and to "$directory/transcript".

directory=""
transcript_writer=""
declare -A process_of=()

begin_transcript() {
  directory=$(mktemp -d)
  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  export XDG_RUNTIME_DIR=$directory/runtime
  mkdir -m 700 "$XDG_RUNTIME_DIR"
  exec 3> >(exec tee "$directory/transcript")
  transcript_writer=$!
}

# start NAME COMMAND...: in the background. What it writes to standard error is put under its name; what it writes to
# standard output says by itself who speaks. (Each line of that is written at once, so that lines keep their order.)
start() {
  local name=$1
  shift
  "$@" >&3 2> >(exec sed --unbuffered "s/^/[$name] /" >&3) 3>&- </dev/null &
  process_of[$name]=$!
}

# As the first word of a started command: its standard output does not say who speaks.
unnamed() {
  exec "$@" >&2
}

# wait_until COMMAND...: until it succeeds. Fails when that takes longer than ten seconds.
wait_until() {
  local deadline=$((SECONDS + 10))
  while ((SECONDS <= deadline)); do
    "$@" && return
    sleep 0.05
  done
  echo "This was waited for in vain for ten seconds: $*" >&2
  return 1
}

# wait_for_line TEXT: until the transcript holds it.
wait_for_line() {
  wait_until grep --quiet --fixed-strings --no-messages -- "$1" "$directory/transcript"
}

# end_of NAME: waits for the program's end, for fifteen seconds at most, and returns its exit code.
end_of() {
  local deadline=$((SECONDS + 15)) process=${process_of[$1]}
  while kill -0 "$process" 2>/dev/null; do
    if ((SECONDS > deadline)); then
      echo "The $1 does not end." >&2
      kill -KILL "$process"
      break
    fi
    sleep 0.05
  done
  unset "process_of[$1]"
  wait "$process"
}

# After the last program's end: until everything said is in the transcript.
end_transcript() {
  exec 3>&-
  wait "$transcript_writer" || true
}

clean_up() {
  local status=$? process
  trap - EXIT INT TERM
  exec 3>&-
  for process in "${process_of[@]}"; do kill -KILL "$process" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [[ -z $directory ]] || rm -rf -- "$directory"
  exit "$status"
}
