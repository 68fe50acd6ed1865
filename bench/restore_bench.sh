#!/usr/bin/env bash
# Taking a repair back: `mendwellctl restore` of N trashed items (default 1000)
# against trash-cli's `trash-restore` of the same items, which restores one item
# per call. Both run in a bubblewrap root with /Users and /Library of the run's own:
# mendwellctl as root for the console user anna (as after `Mendwell -repair`),
# trash-restore as anna. The items are put in anna's Trash with trash-put and
# described by a run record, as a repair leaves them.
# Needs root, bubblewrap, trash-cli and the account anna (scripts/setup-tests.sh).
#   bench/restore_bench.sh BUNDLE [N]     (BUNDLE: build/Mendwell.app)
set -euo pipefail
bundle=$(realpath "${1:?usage: restore_bench.sh BUNDLE [N]}")
n=${2:-1000}
. "$(dirname "$0")/bench-root.sh"

# N files in a folder a repair trashes from (anna's TemporaryItems), trashed, and the record of a run that trashed them.
prepare() {
    box bash -c '
        set -euo pipefail
        n=$1 run=$2
        as_anna bash -c "mkdir -p /Users/anna/Library/Caches/TemporaryItems/Work && cd /Users/anna/Library/Caches/TemporaryItems/Work &&
            for i in \$(seq 1 $n); do echo clip \$i > clip_\$i.txt; done && trash-put clip_*.txt"
        folder=/Users/anna/Library/Logs/Lanternfish/Repairs
        as_anna mkdir -p "$folder"
        {
            echo "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            echo "<plist version=\"1.0\"><dict><key>version</key><integer>1</integer>"
            echo "<key>identifier</key><string>$run</string><key>trashed</key><array>"
            for i in $(seq 1 "$n"); do
                echo "<dict><key>path</key><string>/Users/anna/Library/Caches/TemporaryItems/Work/clip_$i.txt</string>"
                echo "<key>trashPath</key><string>/Users/anna/.local/share/Trash/files/clip_$i.txt</string>"
                echo "<key>infoPath</key><string>/Users/anna/.local/share/Trash/info/clip_$i.txt.trashinfo</string></dict>"
            done
            echo "</array></dict></plist>"
        } | as_anna tee "$folder/$run.plist" >/dev/null
    ' bash "$n" "$1"
}

restored() { box bash -c 'ls /Users/anna/Library/Caches/TemporaryItems/Work | wc -l'; }

prepare 20260101-000000-000-1
start=$(now)
box "$bundle/Contents/MacOS/mendwellctl" restore 20260101-000000-000-1 >/dev/null
mendwell=$(($(now) - start))
[ "$(restored)" = "$n" ] || { echo "mendwellctl restored $(restored) of $n" >&2; exit 1; }
box rm -rf /Users/anna/Library/Caches/TemporaryItems/Work

prepare 20260101-000000-000-2
start=$(now)
box bash -c 'for i in $(seq 1 "$1"); do echo 0 | as_anna trash-restore "/Users/anna/Library/Caches/TemporaryItems/Work/clip_$i.txt" >/dev/null; done' \
    bash "$n"
cli=$(($(now) - start))
[ "$(restored)" = "$n" ] || { echo "trash-restore restored $(restored) of $n" >&2; exit 1; }

awk -v n="$n" -v m="$mendwell" -v c="$cli" 'BEGIN {
    printf "restore of %d trashed items\n", n
    printf "  mendwellctl restore        %8.3f s\n", m / 1e9
    printf "  trash-restore, one by one  %8.3f s   ratio %.1f\n", c / 1e9, c / m
}'
