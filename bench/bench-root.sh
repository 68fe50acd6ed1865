# Sourced by the shell benchmarks: a fresh bubblewrap root holding every
# top-level folder of the machine but /Users and /Library, which are the run's
# own (in $top): nothing is made on the machine itself. `box CMD...` runs as
# root with anna at the console; `as_anna CMD...` (inside box) runs as anna.
top=$(mktemp -d /tmp/mendwell-bench-XXXXXX)
trap 'rm -rf "$top"' EXIT
mkdir -p "$top/Users/anna" "$top/Library/Logs/Lanternfish"
chown anna:anna "$top/Users/anna"
root=()
for entry in /*; do
    case ${entry#/} in Users | Library | proc | dev) continue ;; esac
    if [ -L "$entry" ]; then
        root+=(--symlink "$(readlink "$entry")" "$entry")
    elif [ -d "$entry" ]; then
        root+=(--bind "$entry" "$entry")
    else
        root+=(--ro-bind "$entry" "$entry")
    fi
done
seats=()
[ -d /run/systemd/seats ] && seats=(--tmpfs /run/systemd/seats)
box() {
    bwrap "${root[@]}" --bind "$top/Users" /Users --bind "$top/Library" /Library "${seats[@]}" \
        --proc /proc --dev-bind /dev /dev --unshare-pid --die-with-parent \
        env SUDO_USER=anna PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin "$@"
}
as_anna() { setpriv --reuid=anna --regid=anna --init-groups -- env HOME=/Users/anna "$@"; }
export -f as_anna
now() { date +%s%N; }
