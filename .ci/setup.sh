# Sourced by ./demo and ./check: shows the steps, and installs what they need.

packages=(g++ cmake ninja-build qt6-base-dev qt6-httpserver-dev qt6-websockets-dev libqt6sql6-sqlite curl sqlite3)
commands=(c++ cmake ninja curl sqlite3)

# Everything that runs here talks to this machine alone; no proxy may stand between.
export no_proxy=127.0.0.1,localhost NO_PROXY=127.0.0.1,localhost

step() {
    printf '\n\033[1m== %s\033[0m\n' "$*" | if [ -t 1 ]; then cat; else sed 's/\x1b\[[0-9]*m//g'; fi
}

# By apt on Debian and Ubuntu. Elsewhere, names what is missing and stops.
install_missing() {
    local missing=() name
    if ! command -v apt-get >/dev/null; then
        for name in "${commands[@]}"; do
            command -v "$name" >/dev/null || missing+=("$name")
        done
        # Missing parts of Qt are named by the configure step.
        [ ${#missing[@]} -eq 0 ] && return
        echo "Missing: ${missing[*]}. Install them (CMake 3.25 or later), and Qt 6.4 or later (Core," \
            "Network, Sql with SQLite, Test, HttpServer), then run this again." >&2
        exit 1
    fi

    for name in "${packages[@]}"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
    done
    [ ${#missing[@]} -eq 0 ] && return

    step "Installing ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "Run this as root, then try again:" \
                "apt-get update && apt-get install ${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}
