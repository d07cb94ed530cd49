# shellcheck shell=bash
# What every package has: versions, changelogs, the directories in which they are made. Source log.sh
# first.

KAQ_PACKAGING="$KAQ_ROOT/packaging"
# Who answers for the packages, if DEBEMAIL and DEBFULLNAME do not say it.
KAQ_MAINTAINER="${DEBFULLNAME:-The authors of kaq} <${DEBEMAIL:-kaq@example.org}>"
# shellcheck disable=SC2034 # for those who source it
# What documents are packed: what an operator of either program reads.
KAQ_COLLECTOR_DOCUMENTS=(collector.md diagnostics.md distributed-tracing.md export.md figures.md find.md
	operating.md packages.md verdicts.md viewer.md wire-format.md openapi.yaml)
# shellcheck disable=SC2034
KAQ_EXTENSION_DOCUMENTS=(costs.md diagnostics.md distributed-tracing.md engines.md
	instrumented-functions.md operating.md packages.md script-functions.md wire-format.md)

# kaq_git ARGUMENT...: git in the checkout, whoever owns it.
kaq_git() {
	git -c safe.directory='*' -C "$KAQ_ROOT" "$@"
}

# kaq_commit: prints the time of the commit and its name, "1700000000 0123abc…", of a checkout or of an
# unpacked source archive; false if there is neither.
kaq_commit() {
	local time name
	read -r time name <"$KAQ_PACKAGING/commit"
	if [[ $time =~ ^[0-9]+$ ]]; then
		printf '%s %s\n' "$time" "$name"
	else
		kaq_git log -1 --format='%ct %H' HEAD
	fi
}

# kaq_release: prints the version that the sources bear.
kaq_release() {
	sed -nE 's/^#define KAQ_VERSION "([^"]+)"$/\1/p' "$KAQ_ROOT/extension/state/php_kaq.h"
}

# kaq_package_version: that version where the commit bears its tag, else one that is newer than it, and
# than those of the commits before.
kaq_package_version() {
	local release time name
	release=$(kaq_release)
	read -r time name < <(kaq_commit)
	if [[ $(kaq_git tag --points-at HEAD 2>/dev/null) == *"v$release"* ]]; then
		printf '%s\n' "$release"
	else
		printf '%s+git%s.%s\n' "$release" "$(date -u -d "@$time" +%Y%m%d%H%M%S)" "${name:0:8}"
	fi
}

# kaq_stage NAME DOCUMENT...: an empty directory in which a package is made, with what all of them have;
# prints its path. The words @PHP@, @PHPAPI@ and @MAINTAINER@ are replaced by the variables PHP, PHPAPI
# and KAQ_MAINTAINER.
kaq_stage() {
	local name=$1 source=$2 stage="$KAQ_CACHE/build/packages/$1/sources" file
	shift 2
	rm -rf "$KAQ_CACHE/build/packages/$name"
	mkdir -p "$stage/docs"
	cp -R "$KAQ_PACKAGING/$source/debian" "$stage/"
	cp "$KAQ_PACKAGING/copyright" "$stage/debian/copyright"
	cp "$KAQ_ROOT/CHANGELOG.md" "$stage/"
	for file in "$@"; do
		cp "$KAQ_ROOT/docs/$file" "$stage/docs/"
	done
	for file in "$stage/debian"/*; do
		sed -i -e "s/@PHP@/${PHP:-}/g" -e "s/@PHPAPI@/${PHPAPI:-}/g" \
			-e "s/@MAINTAINER@/$KAQ_MAINTAINER/g" "$file"
	done
	kaq_changelog "$name" >"$stage/debian/changelog"
	printf '%s\n' "$stage"
}

# kaq_changelog NAME: an entry for VERSION.
kaq_changelog() {
	printf '%s (%s) unstable; urgency=medium\n\n' "$1" "$VERSION"
	printf '  * %s\n\n' "Made of commit ${COMMIT:0:12}; CHANGELOG.md says what has changed."
	printf ' -- %s  %s\n' "$KAQ_MAINTAINER" "$(LC_ALL=C date -u -R -d "@$SOURCE_DATE_EPOCH")"
}

# kaq_make_package STAGE LOG: the package, whose path it prints.
kaq_make_package() {
	local stage=$1 log=$2
	local -a made
	(cd "$stage" && kaq_run "$log" dpkg-buildpackage --build=binary --no-sign) ||
		kaq_die "the package could not be made (full log: $log)"
	made=("$stage"/../*.deb)
	[[ -f ${made[0]} ]] || kaq_die "no package was made (full log: $log)"
	mv "${made[@]}" "$OUTPUT/"
	printf '%s\n' "$OUTPUT/$(basename "${made[0]}")"
}
