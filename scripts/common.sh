# shellcheck shell=bash
# Sourced by the scripts beside it, which may be called from any folder: goes to the top of the tree, and
# offers a line per step. `set -e` does not hold inside && and || lists, so every step has a line of its own.

set -euo pipefail
root=$(dirname "${BASH_SOURCE[0]}")
cd "$root/.."
root=$PWD
export LC_ALL=C.UTF-8

logs=$root/build/logs
mkdir -p "$logs"

# One job per core, unless the caller said otherwise.
: "${CMAKE_BUILD_PARALLEL_LEVEL:=$(nproc)}"
export CMAKE_BUILD_PARALLEL_LEVEL

say() { printf '%s\n' "$@"; }

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# show_last_line FILE: on a terminal, keeps the last line of a growing file in view. Ended by its caller.
show_last_line() {
    while sleep 1; do
        printf '\r\033[K    %s\r' "$(tail -n 1 "$1" | cut -c 1-75)"
    done
}

# step TEXT COMMAND...: says what is done and how long it took. What the command prints goes to a file, and
# is shown only if it fails; then the script ends.
step() {
    local text=$1 log status started=$SECONDS ticker=
    shift
    log=$logs/$(tr -cs '[:alnum:]\n' '-' <<<"$text").log
    say "== $text"
    : >"$log"
    if [[ -t 1 ]]; then
        show_last_line "$log" &
        ticker=$!
    fi
    set +e
    (
        set -e
        "$@"
    ) >"$log" 2>&1 </dev/null
    status=$?
    set -e
    if [[ -n $ticker ]]; then
        kill "$ticker"
        wait "$ticker" || true
        printf '\r\033[K'
    fi
    if ((status != 0)); then
        cat "$log" >&2
        fail "failed (exit code $status): $text"
    fi
    if ((SECONDS - started >= 5)); then say "   done in $((SECONDS - started)) s"; fi
}

# configure PRESET [OPTION...]: into build/PRESET.
configure() {
    local options=()
    if [[ -n ${KVFFMPEG_SAMPLE_MEDIA:-} ]]; then
        options+=("-DKVFFMPEG_SAMPLE_MEDIA=$KVFFMPEG_SAMPLE_MEDIA")
    fi
    step "Configuring $1" cmake --preset "$@" "${options[@]}"
}

# run_tests PRESET [ctest OPTION...]: shows ctest's lines, except those of tests that passed.
run_tests() {
    say "== Testing $1"
    fixed_addresses ctest --preset "$@" </dev/null 2>&1 | tee "$logs/tests-$1.log" |
        sed -u -E '/^ *Start +[0-9]+: /d; /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: .*( Passed |\*\*\*Skipped) +[0-9.]+ sec$/d'
}

# fixed_addresses COMMAND...: the sanitizers' runtimes of g++ 12 find no room for their shadow memory where the
# kernel randomises more address bits than they expect.
fixed_addresses() {
    if setarch "$(uname -m)" -R true 2>/dev/null; then
        setarch "$(uname -m)" -R "$@"
    else
        "$@"
    fi
}
