# shellcheck shell=bash
# The npm packages that tests and measurements need. Source log.sh first.

# kaq_viewer_packages COPY LOG: the viewer's sources with all of its npm packages.
kaq_viewer_packages() {
	local copy=$1
	mkdir -p "$copy"
	rm -rf "$copy/src" "$copy/style"
	cmp -s "$KAQ_ROOT/viewer/package-lock.json" "$copy/package-lock.json" || rm -rf "$copy/node_modules"
	cp -R "$KAQ_ROOT/viewer/." "$copy/"
	[[ -d $copy/node_modules ]] ||
		(cd "$copy" && timeout --kill-after=20 600 npm ci --ignore-scripts --no-audit --no-fund) >>"$2" 2>&1 </dev/null
}

# kaq_export_packages DIRECTORY LOG: what the tests of exports read them with.
kaq_export_packages() {
	local directory=$1 file
	mkdir -p "$directory"
	for file in package.json package-lock.json; do
		cmp -s "$KAQ_ROOT/tests/export/$file" "$directory/$file" || rm -rf "$directory/node_modules"
		cp "$KAQ_ROOT/tests/export/$file" "$directory/"
	done
	[[ -d $directory/node_modules ]] ||
		(cd "$directory" && timeout --kill-after=20 600 npm ci --ignore-scripts --no-audit --no-fund) >>"$2" 2>&1 </dev/null
}
