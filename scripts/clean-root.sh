# A clean root of this Debian release, for scripts that try what a fresh machine would. Sourced, by
# root: makes $root (empty until make_root) and $lists for notes; both are gone at the end.

root=$(mktemp -d)
chmod 755 "$root"  # for the user that apt downloads as
lists=$(mktemp -d)

empty_root() {
    local folder
    for folder in dev/mqueue dev/shm proc; do
        ! mountpoint -q "$root/$folder" || umount "$root/$folder"
    done
    find "$root" -xdev -mindepth 1 -delete
}

clean_up() {
    empty_root
    rm -rf --one-file-system "$root" "$lists"
}
trap clean_up EXIT

fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

inside() {
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@"
}

install_packages() {
    inside apt-get install -y -qq --no-install-recommends "$@" >"$lists/apt.log" 2>&1 || {
        tail -n 20 "$lists/apt.log" >&2
        fail "could not install $*"
    }
}

# Fills the root, with the machine's own package sources and trust.
make_root() {
    local suite mirror trusted options=()
    suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
    read -r mirror trusted < <(
        apt-get indextargets --format '$(CODENAME) $(REPO_URI) $(TRUSTED)' 'Created-By: Packages' |
            awk -v suite="$suite" '$1 == suite { print $2, $3; exit }')
    [ -n "$mirror" ] || fail "apt knows no source of $suite"
    [ "$trusted" != yes ] || options+=(--no-check-gpg)
    debootstrap --variant=minbase "${options[@]}" "$suite" "$root" "$mirror" \
        >"$lists/debootstrap.log" 2>&1 || {
        tail -n 20 "$lists/debootstrap.log" >&2
        fail "debootstrap failed"
    }
    local part
    rm -f "$root/etc/apt/sources.list"
    for part in sources.list sources.list.d apt.conf.d auth.conf auth.conf.d keyrings trusted.gpg \
        trusted.gpg.d; do
        [ ! -e "/etc/apt/$part" ] || cp -r "/etc/apt/$part" "$root/etc/apt/"
    done
    cp /etc/resolv.conf /etc/hosts "$root/etc/"
    mount -t proc proc "$root/proc"
    mount -t tmpfs tmpfs "$root/dev/shm"
    inside apt-get update -qq >/dev/null
}
