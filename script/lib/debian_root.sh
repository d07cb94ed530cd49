# shellcheck shell=bash
# A fresh root of Debian 12 in the cache, in which packages are tried. Source log.sh and packages.sh
# first.

KAQ_ROOT_RELEASE=bookworm
# Beside what a minimal root has.
KAQ_ROOT_PACKAGES=(adduser apache2 libapache2-mod-php8.2 php8.2-cgi php8.2-cli php8.2-fpm systemd)

# kaq_root_sources: this machine's own sources of that release, as apt writes them in a line.
kaq_root_sources() {
	# shellcheck disable=SC2016 # the names are apt's
	apt-get indextargets --format '$(CODENAME) $(REPO_URI) $(RELEASE) $(COMPONENT)' \
		'Created-By: Packages' 'Origin: Debian' |
		sed -nE "s|^${KAQ_ROOT_RELEASE}[^ ]* |deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] |p" |
		sort -u
}

# kaq_dependencies DEB...: the names of the packages that they need, but for those that others provide.
kaq_dependencies() {
	local deb
	for deb in "$@"; do
		dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed -E 's/^ *//; s/[ (|].*//'
	done | grep -v '^phpapi-' | sort -u
}

# kaq_debian_root LOG DEB...: prints the path of an archive of a root that has what these need, made the
# first time; false, and the reason on standard error, where none can be had.
kaq_debian_root() {
	local log=$1 archive
	local -a packages sources
	shift
	if [[ $(id -u) -ne 0 ]]; then
		echo 'only root can make one' >&2
		return 1
	fi
	mapfile -t packages < <({ printf '%s\n' "${KAQ_ROOT_PACKAGES[@]}"; kaq_dependencies "$@"; } | sort -u)
	archive="$KAQ_CACHE/roots/$KAQ_ROOT_RELEASE-$(printf '%s\n' "${packages[@]}" | sha1sum | cut -c1-12).tar"
	if [[ ! -e $archive ]]; then
		mapfile -t sources < <(kaq_root_sources)
		if ((${#sources[@]} == 0)); then
			echo "this machine's apt knows no source of $KAQ_ROOT_RELEASE" >&2
			return 1
		fi
		mkdir -p "$KAQ_CACHE/roots"
		kaq_log "packages: making a root of $KAQ_ROOT_RELEASE"
		if ! printf '%s\n' "${sources[@]}" |
			timeout --kill-after=20 1200 mmdebstrap --quiet --format=tar --variant=minbase --include="$(IFS=,; echo "${packages[*]}")" \
				"$KAQ_ROOT_RELEASE" "$archive.new" - >>"$log" 2>&1; then
			rm -f "$archive.new"
			echo "mmdebstrap could not make one ($log)" >&2
			return 1
		fi
		mv "$archive.new" "$archive"
	fi
	printf '%s\n' "$archive"
}
