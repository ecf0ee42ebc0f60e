#!/usr/bin/env bash
# Holds examples/cluster/ to what it says: each result made once, what cannot be made told, nothing half written after an
# end at any moment, the rest made by another run, on this machine, by GNU parallel and, where one answers, by Slurm.
#
#     tests/packages/cluster.sh TOOL CLIP FOLDER

set -euo pipefail
tool=$(realpath -- "$1")
clip=$(realpath -- "$2")
folder=$3
cluster=$(realpath -- "$(dirname -- "${BASH_SOURCE[0]}")/../../examples/cluster")
export KVFFMPEG=$tool KVFFMPEG_SHEET_OPTIONS="--grid 3x2 --width 480"
export LC_ALL=C.UTF-8

fail() {
    printf 'cluster.sh: %s\n' "$*" >&2
    exit 1
}

# same WHAT EXPECTED FOUND
same() { if [[ $2 != "$3" ]]; then fail "$1: expected \"$2\", found \"$3\""; fi; }

# 46 files that are good, under names that need quotes, one of noise, one that is cut off before its index.
make_media() {
    local i
    mkdir -p "$folder/media/a b" "$folder/media/it's; \$(no)"
    for ((i = 0; i < 40; ++i)); do cp "$clip" "$folder/media/a b/clip $i.mp4"; done
    cp "$clip" "$folder/media/it's; \$(no)/\"q\" & *.mp4"
    cp "$clip" "$folder/media/it's; \$(no)/Ærø 漢字.MP4"
    cp "$clip" "$folder/media/-o.mp4"
    cp "$clip" "$folder/media/two"$'\n'"lines.mp4"
    cp "$clip" "$folder/media/a:b.mp4"
    cp "$clip" "$folder/media/.hidden.mp4"
    head -c 5000 /dev/zero >"$folder/media/zeros.mp4"
    head -c 900 "$clip" >"$folder/media/cut off.mp4"
    echo "no media" >"$folder/media/notes.txt"
}

count() { find "$1" -name "$2" -not -path '*/.slurm/*' -printf x | wc -c; }

# check_results RESULTS
check_results() {
    same "JSON files in $1" 46 "$(count "$1" '*.json')"
    same "sheets in $1" 46 "$(count "$1" '*.jpg')"
    same "failures in $1" 4 "$(count "$1" '*.failed')"
    same "unfinished files in $1" 0 "$(count "$1" '.part-*')"
    find "$1" -name '*.jpg' -exec cmp -- "$1/-o.mp4.jpg" '{}' \;
    local broken
    broken=$(find "$1" \( -name '*.json' -o -name '*.failed' \) -empty)
    same "empty files in $1" "" "$broken"
    find "$1" -name '*.json' -print0 | while IFS= read -r -d '' broken; do
        same "tracks in $broken" 2 "$(grep -c '"index": ' "$broken")"
    done
}

# sum FILE: of the numbers in what the jobs printed.
sum() {
    awk '/ made, / { made += $1; there += $3; failed += $6; wrong += $10 }
        END { print made + 0, there + 0, failed + 0, wrong + 0 }' "$@"
}

rm -rf "$folder"
mkdir -p "$folder"
folder=$(realpath -- "$folder")
make_media
"$cluster/make-list" "$folder/media" >"$folder/list"
same "files of the list" 48 "$(tr -cd '\0' <"$folder/list" | wc -c)"

printf '== One after the other\n'
xargs -0 "$cluster/sheet-task" "$folder/media" "$folder/results" <"$folder/list" >"$folder/first"
same "the first run" "92 0 4 0" "$(sum "$folder/first")"
check_results "$folder/results"
xargs -0 "$cluster/sheet-task" "$folder/media" "$folder/results" <"$folder/list" >"$folder/second"
same "the second run" "0 96 0 0" "$(sum "$folder/second")"
touch -d '+1 minute' "$folder/media/-o.mp4"
xargs -0 "$cluster/sheet-task" "$folder/media" "$folder/results" <"$folder/list" >"$folder/third"
same "the run after a file changed" "2 94 0 0" "$(sum "$folder/third")"
touch "$folder/media/-o.mp4"

printf '== What is no failure of the file\n'
status=0
KVFFMPEG=$folder/no-tool "$cluster/sheet-task" "$folder/media" "$folder/none" -o.mp4 2>/dev/null || status=$?
same "exit code without the tool" 1 "$status"
status=0
"$cluster/sheet-task" "$folder/media" "$folder/none" nothing.mp4 >/dev/null 2>&1 || status=$?
same "exit code for a file that is not there" 1 "$status"
same "what was told then" 0 "$(count "$folder/none" '*.failed')"
# A tool that never ends, and one that only a KILL ends: both leave the file for another run.
printf '#!/bin/sh\nexec sleep 60\n' >"$folder/slow-tool"
printf '#!/bin/sh\nkill -KILL $$\n' >"$folder/killed-tool"
chmod +x "$folder"/*-tool
KVFFMPEG=$folder/slow-tool KVFFMPEG_SECONDS=1 "$cluster/sheet-task" "$folder/media" "$folder/slow" -o.mp4 >/dev/null
same "what a slow tool leaves" "took longer than 1 s" "$(cat "$folder/slow/-o.mp4.json.failed")"
status=0
KVFFMPEG=$folder/killed-tool "$cluster/sheet-task" "$folder/media" "$folder/killed" -o.mp4 >/dev/null 2>&1 || status=$?
same "exit code after the tool was killed" 1 "$status"
same "what a killed tool leaves" 0 "$(find "$folder/killed" -type f | wc -l)"
KVFFMPEG=$folder/slow-tool "$cluster/sheet-task" "$folder/media" "$folder/ended" -o.mp4 &
task=$!
while [[ -z $(find "$folder/ended" -name '.part-*.failed' 2>/dev/null) ]]; do sleep 0.05; done
kill "$task"
status=0
wait "$task" || status=$?
same "exit code after TERM" 143 "$status"
same "what is left after TERM" 0 "$(find "$folder/ended" -type f | wc -l)"

# After a KILL, which nobody can clean up after, the unfinished file has a name that is no result's.
printf '== Killed at some moments, and run again\n'
for pause in 0.02 0.1 0.3 0.7; do
    setsid xargs -0 "$cluster/sheet-task" "$folder/media" "$folder/resumed" <"$folder/list" >/dev/null 2>&1 &
    task=$!
    sleep "$pause"
    kill -KILL -- "-$task" 2>/dev/null || true
    wait "$task" 2>/dev/null || true
done
xargs -0 "$cluster/sheet-task" "$folder/media" "$folder/resumed" <"$folder/list" >/dev/null
find "$folder/resumed" -name '.part-*' -delete
check_results "$folder/resumed"

if command -v parallel >/dev/null; then
    printf '== By GNU parallel\n'
    "$cluster/with-parallel" "$folder/list" "$folder/media" "$folder/parallel" --jobs 2 >"$folder/parallel.txt"
    same "parallel" "92 0 4 0" "$(sum "$folder/parallel.txt")"
    check_results "$folder/parallel"
    "$cluster/with-parallel" "$folder/list" "$folder/media" "$folder/parallel" --jobs 2 >"$folder/parallel.txt"
    same "parallel again" "0 96 0 0" "$(sum "$folder/parallel.txt")"
else
    printf '== There is no GNU parallel: left out\n'
fi

if command -v sinfo >/dev/null && timeout 10 sinfo --noheader >/dev/null 2>&1; then
    printf '== By Slurm\n'
    "$cluster/with-slurm" "$folder/list" "$folder/media" "$folder/slurm" 6 --wait --mem-per-cpu=200M
    same "Slurm" "92 0 4 0" "$(sum "$folder"/slurm/.slurm/*.txt)"
    check_results "$folder/slurm"
else
    printf '== No Slurm answers: left out\n'
fi
printf '== cluster: nothing wrong\n'
