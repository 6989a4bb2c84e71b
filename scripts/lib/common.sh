# shellcheck shell=bash
# Sourced by the commands beside it. The comment at the top of each script is what its --help prints.

project=$(dirname -- "$(dirname -- "$(readlink -f -- "$0")")")

say() {
    printf '== %s\n' "$*"
}

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

usage() {
    sed -n '2,/^[^#]/s/^# \?//p' -- "$0"
}

# Ends the command because of wrong arguments.
misuse() { # REASON
    printf '%s: %s\n\n' "${0##*/}" "$1" >&2
    usage >&2
    exit 2
}

for argument in "$@"; do
    case $argument in
        -h | --help) usage; exit 0 ;;
        --) break ;;
    esac
done

# Runs a command as root, through sudo if need be. Keeps standard input.
as_root() {
    if ((EUID == 0)); then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo -- "$@"
    else
        fail "this step needs root: run it as root, or install sudo ($*)"
    fi
}

# The number of build jobs: one a core, but no more than memory allows (a Qt source takes about 1 GB).
job_count() {
    local cores memory
    cores=$(nproc)
    memory=$(($(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo) / 1048576))
    ((memory >= 1)) || memory=1
    echo $((cores < memory ? cores : memory))
}

# Keeps a build folder to this command until it ends, so that no other one builds or cleans in there meanwhile.
lock() { # FOLDER
    local file
    mkdir -p -- "$1"
    exec {file}>"$1/.lock" || fail "$1 cannot be written"
    flock --nonblock "$file" || fail "$1 is in use by another command: wait for it to end"
}

build_preset() { # PRESET [CMAKE-OPTION...]
    local log="$project/build/$1/configure.log"
    lock "$project/build/$1"
    say "Building the preset $1"
    if ! cmake -S "$project" --preset "$@" >"$log" 2>&1; then
        cat "$log"
        fail "cmake --preset $1 failed"
    fi
    build "$project/build/$1" || fail "the build failed"
}

# Builds in a configured folder, and ends when the calling command ends, even if that is killed.
build() { # FOLDER [TARGET]
    setpriv --pdeathsig TERM ninja -C "$1" -j "$(job_count)" "${@:2}"
}

native=$(dpkg --print-architecture)

# Lets programs of another architecture run under user emulation, until this machine ends.
emulate() { # ARCHITECTURE
    local binfmt=/proc/sys/fs/binfmt_misc
    [[ $native-$1 == amd64-arm64 ]] || fail "systems of $1 can't be made on $native"
    "$project/scripts/install-dependencies" arm64
    [[ -e $binfmt/status ]] || as_root mount -t binfmt_misc binfmt_misc "$binfmt"
    [[ -e $binfmt/qemu-aarch64 ]] || as_root update-binfmts --enable qemu-aarch64
}

# Makes a fresh system at ROOT, from the mirror and with the proxies that this machine's apt uses. If apt has no mirror,
# debootstrap takes its own. One of another architecture needs emulate.
make_debian() { # RELEASE ARCHITECTURE ROOT [DEBOOTSTRAP-OPTION...]
    local -A code_names=([12]=bookworm [13]=trixie)
    local code_name=${code_names[$1]} mirror
    # shellcheck disable=SC2016 # the words in $() are apt's
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' | head -n 1)
    as_root debootstrap --variant=minbase --arch="$2" "${@:4}" "$code_name" "$3" ${mirror:+"$mirror"} \
        >"$3.debootstrap.log" || fail "debootstrap failed, see $3.debootstrap.log"
    apt-config dump | grep -E '^Acquire::(https?|Check)' | as_root tee "$3/etc/apt/apt.conf.d/50machine" >/dev/null || true
    as_root install -m 644 /etc/resolv.conf /etc/hosts "$3/etc"
}

# Makes a system in which in_system can build. One of another architecture is lent a cross compiler by ROOT.compiler, since
# an emulated one takes hours.
make_builder() { # RELEASE ARCHITECTURE ROOT
    make_debian "$@"
    [[ $2 != "$native" ]] || return 0
    as_root rm -rf --one-file-system -- "$3.compiler"
    make_debian "$1" "$native" "$3.compiler" --include=g++-aarch64-linux-gnu
    # in_system mounts the rest; what is built depends on the headers.
    as_root mkdir -p "$3/usr/lib64" "$3/usr/lib/x86_64-linux-gnu" "$3/usr/libexec/gcc-cross"
    as_root ln -s usr/lib64 "$3/lib64" # a folder would not pass for a merged /usr
    as_root cp -a "$3.compiler/usr/aarch64-linux-gnu" "$3/usr/"
    as_root cp -a "$3.compiler/usr/lib/gcc-cross" "$3/usr/lib/"
}

# Puts the last commit into the system at ROOT, where in_system runs commands.
copy_commit() { # ROOT
    as_root rm -rf -- "$1/root/project"
    as_root mkdir -p -- "$1/root/project"
    git -C "$project" archive --format=tar HEAD | as_root tar -x --no-same-owner -C "$1/root/project"
}

# Runs COMMAND in the system at ROOT, with processes and mounts of its own, which end with it. chroot is not enough, since
# scripts/view moves the root itself.
in_system() { # ROOT COMMAND
    # shellcheck disable=SC2016
    as_root unshare --mount --pid --fork --kill-child --uts --ipc \
        env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 ${http_proxy:+"http_proxy=$http_proxy"} \
        bash -c '
            set -e
            cd -- "$1"
            mount --bind . .
            cd -- "$1" # into the new mount
            lent=(usr/lib64 usr/lib/x86_64-linux-gnu usr/libexec/gcc-cross usr/bin/aarch64-linux-gnu-{as,ld.bfd,{cpp,gcc,g++}-1?})
            for place in "${lent[@]}"; do
                [[ ! -e $1.compiler/$place || ! -e $place ]] || mount --bind "$1.compiler/$place" "$place"
            done
            mount -t proc proc proc
            mount --rbind /sys sys
            mount --rbind /dev dev
            mount -t tmpfs -o mode=1777 tmpfs dev/shm
            mount -t tmpfs -o mode=1777 tmpfs tmp
            mount -t tmpfs -o mode=755 tmpfs run
            pivot_root . mnt
            umount -l /mnt
            cd /root/project
            eval "$2"' in-system "$@"
}

# Runs scripts/view, which ends when the calling command ends, even if that is killed.
view() {
    setpriv --pdeathsig TERM "$project/scripts/view" "$@"
}

# The project's files of these kinds, NUL-separated, relative to the project folder.
find_sources() { # EXTENSION|EXTENSION...
    (cd -- "$project" && find . -regextype egrep \( -path ./build -o -path ./.git \) -prune -o \
        -regex ".*\.($1)" -printf '%P\0')
}
