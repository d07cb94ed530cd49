#!/bin/sh
# Makes the pages that are built into the collector: viewer/build.sh DIRECTORY. The result is
# DIRECTORY/made, with viewer_files.cpp and shared_file_page.cpp for the compiler. Without npm, or where
# its packages cannot be had, they have no pages in them, and this says so; a mistake in the sources is
# an error.
set -eu

here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd)
build=$1
copy=$build/source

# without REASON: a collector without pages.
without() {
	printf 'The collector is built without its pages: %s\n' "$1" >&2
	rm -rf "$build/made"
	mkdir -p "$build/made"
	cat >"$build/made/viewer_files.cpp" <<'CPP'
#include "http/viewer_files.h"

const std::vector<kaq::ViewerFile> &kaq::viewer_files() {
	static const std::vector<ViewerFile> kNone;
	return kNone;
}
CPP
	cat >"$build/made/shared_file_page.cpp" <<'CPP'
#include "query/shared_file.h"

std::string_view kaq::shared_file_page() {
	return {};
}
CPP
	# Older than everything they are made from, so that the next build tries again.
	touch -t 197001020000 "$build/made/viewer_files.cpp" "$build/made/shared_file_page.cpp"
	exit 0
}

if ! command -v npm >/dev/null || ! command -v node >/dev/null; then
	without 'npm is not installed'
fi

# Packages are kept beside the build, never in the checkout.
mkdir -p "$copy"
for each in package.json package-lock.json .npmrc; do
	cp "$here/$each" "$copy/$each.new"
done
if ! cmp -s "$copy/package-lock.json.new" "$copy/package-lock.json" || [ ! -d "$copy/node_modules/esbuild" ]; then
	mv "$copy/package.json.new" "$copy/package.json"
	mv "$copy/.npmrc.new" "$copy/.npmrc"
	rm -f "$copy/package-lock.json"
	mv "$copy/package-lock.json.new" "$copy/package-lock.json"
	if ! (cd "$copy" && timeout 300 npm ci --omit=dev --ignore-scripts --no-audit --no-fund \
		--fetch-retries=1 --fetch-retry-mintimeout=1000 >"$build/npm.log" 2>&1 </dev/null); then
		rm -f "$copy/package-lock.json"
		without "npm cannot have the packages ($build/npm.log)"
	fi
fi
rm -rf "$copy/src" "$copy/style" "$build/made"
cp -R "$here/src" "$here/style" "$here/build.mjs" "$here/shared_file.mjs" "$here/index.html" "$here/icon.svg" "$copy/"
node "$copy/build.mjs" "$build/made" >"$build/viewer.log"
