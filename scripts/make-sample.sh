#!/usr/bin/env bash
# Makes the sample data under ROOT (a sandbox's root folder): anna's home with
# Premiere Pro's preferences, workspace layouts, Dynamic Link caches and
# memory-balancer files, the machine's Adobe folders, and a few items whose
# permissions a repair must correct. Run as root; anna must exist
# (scripts/setup-tests.sh).
# usage: make-sample.sh ROOT
set -euo pipefail
root=${1:?usage: make-sample.sh ROOT}
home=$root/Users/anna
machine=$root/Library

plist() {  # plist FILE KEY VALUE: a one-entry XML property list
  mkdir -p "$(dirname "$1")"
  cat >"$1" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>$2</key>
	<string>$3</string>
</dict>
</plist>
PLIST
}
text() {  # text FILE LINE
  mkdir -p "$(dirname "$1")"
  printf '%s\n' "$2" >"$1"
}

mkdir -p "$home/Desktop" "$home/Movies" "$machine/Logs/Lanternfish" "$root/Applications"

# What the repair trashes.
support="$home/Library/Application Support/Adobe/Premiere Pro/7.0"
text "$support/Adobe Premiere Pro Prefs" "<PremiereData Version=\"3\"><Workspace>Editing</Workspace></PremiereData>"
prefs=$home/Library/Preferences
plist "$prefs/com.Adobe.Premiere Pro.7.0.plist" LastProject "/Users/anna/Movies/Trailer.prproj"
plist "$prefs/com.Adobe.Common 7.0.plist" MediaCacheLocation "/Users/anna/Library/Application Support/Adobe/Common"
plist "$prefs/com.adobe.CSXS.4.plist" LogLevel 1
plist "$prefs/com.adobe.crashreporter.plist" Mode 1
plist "$machine/Preferences/com.adobe.CSXS.4.plist" PlayerDebugMode 0
for layout in Editing Effects "Color Correction"; do
  text "$home/Documents/Adobe/Premiere Pro/7.0/Layouts/$layout.xml" "<Workspace Name=\"$layout\"/>"
done
text "$home/Library/Caches/TemporaryItems/com.adobe.dynamiclinkmanager.1234/cache.dat" "frames 0-1200"
text "$prefs/Adobe/dynamiclinkmanager/7.0/memorybalancerdlserver.xml" "<MemoryBalancer Reserve=\"2048\"/>"

# What it leaves alone: the projects, a plug-in's settings, the 64-bit choice.
text "$home/Movies/Trailer.prproj" "<Project Name=\"Trailer\"/>"
text "$support/Plugins/Noise Reduction.txt" "strength 0.4"
mkdir -p "$prefs"
cat >"$prefs/com.apple.LaunchServices.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>LSArchitecturesForX86_64</key>
	<dict>
		<key>com.adobe.AdobePremierePro</key>
		<array>
			<string>x86_64</string>
			<string>x86_64</string>
		</array>
	</dict>
</dict>
</plist>
PLIST
text "$machine/Application Support/Adobe/Common/Plugin Registry.txt" "Adobe Common plug-ins"
text "$machine/Application Support/Adobe/SLStore/license.db" "license store"
chmod 666 "$machine/Application Support/Adobe/SLStore/license.db"

chown -R anna:anna "$home"
chmod 755 "$root/Users" "$home"

# Wrong: a cache file root left in anna's folders, a layout folder of root's,
# a machine file only root can read, and the license store closed to users.
text "$support/Trace Database.txt" "written by an installer running as root"
mkdir -p "$home/Documents/Adobe/Premiere Pro/7.0/Profile-root"
chmod 600 "$machine/Application Support/Adobe/Common/Plugin Registry.txt"
chmod 755 "$machine/Application Support/Adobe/SLStore"
