# Shared by ./run and ./test: installs what the build needs and builds a preset. Sourced from the project's root.

# What the build and the tests need from Debian, one line a purpose.
packages=(
    g++ cmake ninja-build ccache mold                        # building
    unixodbc-dev unixodbc libsqliteodbc libsqlite3-dev       # the database
    libboost-dev libpugixml-dev rapidjson-dev                # messages and HTTP
    libspdlog-dev libfmt-dev libcli11-dev libtomlplusplus-dev libssl-dev zlib1g-dev
    libsystemd-dev pkg-config                                # the service manager
    libvirt-dev                                              # hypervisors
    libgtest-dev libgmock-dev libbenchmark-dev libpq-dev     # tests and benchmarks
    python3 curl sqlite3 patch               # checks, and what the documents' examples call
    ca-certificates git
)

# What the tests run beside the program.
test_packages=(postgresql-15 odbc-postgresql openssl nodejs fish zsh dpkg-dev lintian mkdocs podman runc busybox-static
               dbus-daemon systemd-container lxd)

# What checks the agent's description of its routes, and makes a client of it to be tested with: Debian has no package of
# either.
install_modules() {
    local folder=$PWD/build/tools/modules
    if ! cmp -s tests/agent/generated/package-lock.json "$folder/installed.json"; then
        command -v npm >/dev/null || install_packages npm
        say "installing what checks the description of the routes"
        mkdir -p "$folder" && cp tests/agent/generated/package{,-lock}.json "$folder" || return 1
        npm ci --prefix "$folder" --ignore-scripts --no-audit --no-fund --silent &&
            cp "$folder/package-lock.json" "$folder/installed.json" || {
            say "npm could not bring it; the tests that need it are left out"
            return 0
        }
    fi
    export QOR_TEST_NODE_MODULES=$folder/node_modules
}

say() {
    if [ -t 2 ]; then printf '\033[1m==> %s\033[0m\n' "$*" >&2; else printf '==> %s\n' "$*" >&2; fi
}

# install_packages [MORE...]: installs those that are missing, with apt.
install_packages() {
    local wanted missing=()
    for wanted in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}\n' "$wanted" 2>/dev/null | grep -q '^install ok installed' || missing+=("$wanted")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    say "installing: ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" \
        >/dev/null
}

configure() {  # configure PRESET
    say "configuring build/$1"
    cmake --preset "$1" >"/tmp/qor-configure-$$.log" 2>&1 || {
        cat "/tmp/qor-configure-$$.log" >&2
        return 1
    }
    rm -f "/tmp/qor-configure-$$.log"
}

# build PRESET [TARGET...]: configures (once, and when the presets change) and builds; quick when nothing changed.
build() {
    local preset=$1
    shift
    [ "build/$preset/build.ninja" -nt CMakePresets.json ] || configure "$preset"
    say "building build/$preset"
    local target=()
    [ $# -eq 0 ] || target=(--target "$@")
    cmake --build --preset "$preset" "${target[@]}"
}
