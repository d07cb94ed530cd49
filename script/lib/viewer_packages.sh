# shellcheck shell=bash
# The npm packages that the viewer's tests and measurements need. Source log.sh first.

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
