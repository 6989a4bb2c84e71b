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
    cmake --build "$project/build/$1" --parallel "$(job_count)" || fail "the build failed"
}

# Makes a fresh system at ROOT, from the mirror and with the proxies that this machine's apt uses. If apt has no mirror,
# debootstrap takes its own.
make_debian() { # RELEASE ROOT
    local mirror
    local -A code_names=([12]=bookworm [13]=trixie)
    # shellcheck disable=SC2016 # the words in $() are apt's
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' | head -n 1)
    as_root debootstrap --variant=minbase "${code_names[$1]}" "$2" ${mirror:+"$mirror"} \
        >"$2.debootstrap.log" || fail "debootstrap failed, see $2.debootstrap.log"
    apt-config dump | grep -E '^Acquire::(https?|Check)' | as_root tee "$2/etc/apt/apt.conf.d/50machine" >/dev/null || true
    as_root install -m 644 /etc/resolv.conf /etc/hosts "$2/etc"
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
