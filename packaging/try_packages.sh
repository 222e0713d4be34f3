#!/usr/bin/env bash
# Installs the packages in a bare Debian 12, plays the demonstration there, purges them and looks for what is left.
#
# Usage: try_packages.sh FOLDER   the folder with the packages; as root, with this machine's own apt sources
set -euo pipefail

here=$(readlink -f -- "${BASH_SOURCE[0]}")
packages=(libinet-relay1 libzolt-reference-host1 libinet-relay-dev zolt-center zolt-wireshark)
# What a package manager changes whatever it installs.
volatile='^/(proc|sys|dev|run|tmp|packages|var/(cache|log)|var/lib/(apt|dpkg|systemd)|etc/ld\.so\.cache)(/|$)'

say() { printf 'try: %s\n' "$*" >&2; }
fail() { say "$*"; exit 1; }

# --- inside the bare system --------------------------------------------------------------------------------------

list_files() {
    find / -xdev -print | grep -Ev "$volatile" | sort
}

apt() {
    DEBIAN_FRONTEND=noninteractive apt-get -qq -y "$@" >>/tmp/apt.log 2>&1 || { tail -n 20 /tmp/apt.log >&2; fail "apt-get $*"; }
}

try_inside() {
    local verdict
    apt update
    list_files >/tmp/before
    apt install --no-install-recommends /packages/*.deb
    say "installed: $(dpkg-query -W -f '${Package} ' "${packages[@]}")"
    [[ -s /etc/zolt/zolt.ini ]] || fail "no configuration was installed"
    zolt-center config check /etc/zolt/zolt.ini >&2
    verdict=$(zolt-center demo --seconds 20 --json 2>/tmp/demo.log | tail -1) || true
    say "${verdict%%,\"steps\"*}"
    [[ $verdict == '{"passed":true,'* ]] || { cat /tmp/demo.log >&2; fail "the demonstration did not end well"; }
    apt autoremove --purge "${packages[@]}"
    list_files >/tmp/after
    # A file of the bare system that went is as wrong as one that stays.
    diff /tmp/before /tmp/after >&2 || fail "the purge did not leave the system as it was"
    say "purged; nothing is left"
}

# --- outside -----------------------------------------------------------------------------------------------------

# The file system of the bare one becomes the only one there is: in a mere chroot no user namespace can be made.
enter() {
    mount --rbind "$1" "$1"
    cd "$1"
    mount -t proc proc proc
    mount --rbind /dev dev
    pivot_root . mnt
    cd /
    umount -l /mnt
    exec /packages/try_packages.sh --inside
}

try_packages() {
    local folder root name sources=()
    folder=$(readlink -f -- "$1")
    ((EUID == 0)) || fail "only root can make another system"
    mapfile -t sources < <(find /etc/apt -maxdepth 2 \( -name '*.list' -o -name '*.sources' \) -size +0)
    root=$(mktemp -d -p "$folder")
    # shellcheck disable=SC2064 # as it is now
    trap "rm -rf --one-file-system '$root'" EXIT
    say "making a bare system"
    mmdebstrap --quiet --variant=minbase bookworm "$root" "${sources[@]}" >"$folder/mmdebstrap.log" 2>&1 ||
        { tail -n 20 "$folder/mmdebstrap.log" >&2; fail "mmdebstrap failed"; }
    mkdir "$root/packages"
    for name in "${packages[@]}"; do
        cp "$folder/$name"_*.deb "$root/packages/"
    done
    cp "$here" "$root/packages/"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    unshare --mount --pid --fork --propagation private "$here" --enter "$root"
}

case $1 in
    --inside) try_inside ;;
    --enter) enter "$2" ;;
    *) try_packages "$1" ;;
esac
