# shellcheck shell=bash
# Sourced by the scripts beside it: finds the project, says what is being done, and reaches root
# where something needs it.

project=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
export project

say() {
    printf '== %s\n' "$*"
}

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# As root already, or through sudo. Keeps standard input.
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

# Every C++ source and header of ours, NUL-separated, relative to the project folder.
find_sources() {
    (cd -- "$project" && find . \( -path ./build -o -path ./.git \) -prune -o \
        \( -name '*.cpp' -o -name '*.h' \) -printf '%P\0')
}

build_preset() { # PRESET [CMAKE-OPTION...]
    say "Building the preset $1"
    mkdir -p "$project/build"
    : >"$project/build/configure.log" || fail "the build folder cannot be written"
    if ! cmake -S "$project" --preset "$@" >"$project/build/configure.log" 2>&1; then
        cat "$project/build/configure.log"
        fail "cmake --preset $1 failed"
    fi
    cmake --build "$project/build/$1" --parallel "$(job_count)" || fail "the build failed"
}

# Follows the road in the throw-away view; its results go to RESULTS, which is emptied first.
demonstrate() { # RESULTS [VIEW-OPTION...] -- [DEMONSTRATION-OPTION...]
    local results=$1 view_options=()
    shift
    while [[ $1 != -- ]]; do
        view_options+=("$1")
        shift
    done
    shift
    rm -rf -- "$results"
    mkdir -p -- "$results"
    say "Entering the throw-away view"
    "$project/scripts/view" --driver loaded --share "$results" "${view_options[@]}" -- \
        "$project/scripts/lib/demonstration" --project "$project" \
        --build "$project/build/release" --results "$(cd -- "$results" && pwd -P)" "$@"
}
