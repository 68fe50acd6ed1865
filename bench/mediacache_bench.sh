#!/usr/bin/env bash
# Clearing Premiere Pro's media cache: N files (default 100,000, 21,000 bytes
# each, sparse: about 2 GB) in anna's two cache folders, moved to the Trash by
# `mendwellctl mediacache` (as root for the console user anna; then brought back
# by `mendwellctl restore`, which must restore all of them) against
# `gio trash` of the same files (as anna, as many files per call as fit), in
# turn three times each, medians compared; and
# the preview's count of files and bytes against `du -s` of the same folders
# (in turn, five times each, medians compared).
# Needs root, bubblewrap, gio (libglib2.0-bin) and the account anna.
#   bench/mediacache_bench.sh BUILD [N]     (BUILD: the build folder, with -DMENDWELL_BUILD_BENCH=ON)
set -euo pipefail
build=$(realpath "${1:?usage: mediacache_bench.sh BUILD [N]}")
n=${2:-100000}
. "$(dirname "$0")/bench-root.sh"
common="/Users/anna/Library/Application Support/Adobe/Common"

# N cache files in 100 sub-folders of the two folders, and an empty Trash.
prepare() {
    box bash -c '
        set -euo pipefail
        n=$1 common=$2
        as_anna rm -rf /Users/anna/.local/share/Trash
        as_anna bash -c "
            per=\$(( ($n + 99) / 100 ))
            for d in \$(seq 1 100); do
                folder=\"$common/Media Cache Files/\$d\"
                [ \$d -gt 90 ] && folder=\"$common/Media Cache/\$d\"
                mkdir -p \"\$folder\" && cd \"\$folder\"
                first=\$(( (d - 1) * per + 1 )) last=\$(( d * per ))
                [ \$last -gt $n ] && last=$n
                [ \$first -le \$last ] && truncate -s 21000 \$(eval echo clip_{\$first..\$last}.cfa)
            done"
    ' bash "$n" "$common"
}
cached() { box bash -c 'find "$1" -type f | wc -l' bash "$common"; }

prepare
sync
# The count and du in turn, five times each; the medians are compared.
surveys=() dus=()
for _ in 1 2 3 4 5; do
    start=$(now)
    box "$build/bench/mediacache_survey" >"$top/survey"
    surveys+=($(($(now) - start)))
    start=$(now)
    box bash -c 'as_anna du -s "$1/Media Cache Files" "$1/Media Cache"' bash "$common" >/dev/null
    dus+=($(($(now) - start)))
done
median() { printf '%s\n' "$@" | sort -n | sed -n 3p; }
survey=$(median "${surveys[@]}")
du=$(median "${dus[@]}")

# The clean-up and gio trash in turn, three times each, on a cache made anew;
# after each clean-up its record must bring every file back.
mendwells=() restores=() gios=()
for round in 1 2 3; do
    [ "$round" = 1 ] || prepare
    start=$(now)
    box "$build/Mendwell.app/Contents/MacOS/mendwellctl" mediacache >/dev/null
    mendwells+=($(($(now) - start)))
    [ "$(cached)" = 0 ] || { echo "mendwellctl left $(cached) of $n files" >&2; exit 1; }
    start=$(now)
    box "$build/Mendwell.app/Contents/MacOS/mendwellctl" restore >"$top/restore"
    restores+=($(($(now) - start)))
    [ "$(cached)" = "$n" ] || { echo "mendwellctl restore brought back $(cached) of $n files" >&2; exit 1; }

    prepare
    start=$(now)
    box bash -c 'cd "$1" && as_anna find . -type f -print0 | as_anna xargs -0 gio trash' bash "$common"
    gios+=($(($(now) - start)))
    [ "$(cached)" = 0 ] || { echo "gio trash left $(cached) of $n files" >&2; exit 1; }
done
median3() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
mendwell=$(median3 "${mendwells[@]}")
restore=$(median3 "${restores[@]}")
gio=$(median3 "${gios[@]}")

awk -v n="$n" -v m="$mendwell" -v r="$restore" -v said="$(cat "$top/restore")" -v g="$gio" -v s="$survey" -v d="$du" -v what="$(cat "$top/survey")" 'BEGIN {
    printf "media cache of %d files (%s)\n", n, what
    printf "  mendwellctl mediacache     %8.3f s   (median of 3)\n", m / 1e9
    printf "  gio trash                  %8.3f s   ratio %.1f   (median of 3)\n", g / 1e9, g / m
    printf "  mendwellctl restore        %8.3f s   (median of 3; %s)\n", r / 1e9, said
    printf "  preview count (survey)     %8.3f s   (median of 5)\n", s / 1e9
    printf "  du -s                      %8.3f s   ratio %.2f   (median of 5)\n", d / 1e9, d / s
}'
