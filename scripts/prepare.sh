# Sourced by ./run, ./test and .ci/run: what they share.

# Needs nothing of the caller's folder, and no questions of apt-get.
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
export DEBIAN_FRONTEND=noninteractive
# What one clone has compiled serves the next one, wherever it lies.
export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1

say() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }

# list_packages <kind>...: the packages of packages.txt without a kind, and those of the kinds given.
list_packages()
{
    local line kind
    while IFS= read -r line; do
        line="${line%%#*}"
        line="${line//[[:space:]]/}"
        [[ -n "$line" ]] || continue
        if [[ "$line" != *:* ]]; then
            printf '%s\n' "$line"
            continue
        fi
        for kind in "$@"; do
            [[ "${line%%:*}" != "$kind" ]] || printf '%s\n' "${line#*:}"
        done
    done < "$root/packages.txt"
}

is_installed()
{
    [[ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" == *installed* ]] &&
        [[ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" != *not-installed* ]]
}

# install_packages <kind>...: installs what is missing; does nothing, and needs no right to, when all are there.
install_packages()
{
    local missing=() package as_root=()
    if ! command -v dpkg-query > /dev/null; then
        say "this is no Debian system; the packages to have are in packages.txt"
        return
    fi
    while IFS= read -r package; do
        is_installed "$package" || missing+=("$package")
    done < <(list_packages "$@")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    if [[ $EUID -ne 0 ]]; then
        if ! command -v sudo > /dev/null; then
            say "these packages are missing, and only root can install them: ${missing[*]}"
            say "as root: apt-get install --no-install-recommends ${missing[*]}"
            return 1
        fi
        as_root=(sudo)
    fi
    say "installing ${missing[*]}"
    # Progress is talk: standard output is for data.
    "${as_root[@]}" apt-get update -qq >&2 < /dev/null
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends "${missing[@]}" >&2 < /dev/null
}

# configure <preset>: only when it has not been configured yet; the build itself notices later changes.
configure()
{
    [[ -f "$root/build/$1/build.ninja" ]] || (cd "$root" && cmake --preset "$1") >&2 < /dev/null
}

# build <preset> <cmake --build arguments>...
build()
{
    local preset="$1"
    shift
    (cd "$root" && cmake --build "build/$preset" "$@") >&2 < /dev/null
}

# has_node: Node.js 20 or later and npm. Debian 12 has an older one, so that it is not in packages.txt.
has_node()
{
    command -v npm > /dev/null && [[ "$(node -p 'process.versions.node.split(".")[0]' 2> /dev/null || echo 0)" -ge 20 ]]
}

# build_page <preset>: the page, into the folder where the program of this preset looks for it. Nothing is done when it
# is there and newer than what it is made of.
build_page()
{
    local page="$root/build/$1/web"
    if [[ -f "$page/index.html" && -z "$(find "$root/web" -path "$root/web/node_modules" -prune -o -path "$root/web/dist" -prune \
        -o -type f -newer "$page/index.html" -print -quit)" ]]; then
        return
    fi
    (cd "$root/web" && npm ci --no-audit --no-fund && npm run build) >&2 < /dev/null
    rm -rf "$page"
    cp -r "$root/web/dist" "$page"
    touch "$page/index.html"
}
