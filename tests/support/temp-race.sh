#!/bin/sh
# Another local user against root's runs in the shared temporary folder TEMP, run
# as that user while root's runs go on. Round after round she keeps SOURCE (a
# link or a bundle of hers, copied as it is) at the old fixed name PLANT, and
# tries every folder of a run there (matching PATTERN): to move it away, to put a
# file and a link of hers inside, and to replace the updater's program in it by
# PROGRAM. Ends after ROUNDS rounds, SECONDS seconds or once STOP exists, and
# writes "attempts=N escapes=M" to REPORT; an escape is a try that went through.
# usage: temp-race.sh TEMP PATTERN PROGRAM SOURCE PLANT ROUNDS SECONDS STOP REPORT
set -u
temp=$1 pattern=$2 program=$3 source=$4 plant=$5 rounds=$6 seconds=$7 stop=$8 report=$9
attempts=0 escapes=0 round=0
end=$(($(date +%s) + seconds))
try() {
    attempts=$((attempts + 1))
    if "$@" 2>/dev/null; then escapes=$((escapes + 1)); fi
}
while [ "$round" -lt "$rounds" ] && [ ! -e "$stop" ] && [ "$(date +%s)" -lt "$end" ]; do
    [ -e "$plant" ] || [ -L "$plant" ] || cp -a "$source" "$plant" 2>/dev/null
    for run in "$temp"/$pattern; do
        [ -d "$run" ] || continue
        try mv "$run" "$run.taken"
        try touch "$run/planted"
        try ln -s "$source" "$run/linked"
        try cp "$program" "$run/Lanternfish Software Update.app/Contents/MacOS/Updater"
    done
    round=$((round + 1))
done
echo "attempts=$attempts escapes=$escapes" >"$report"
