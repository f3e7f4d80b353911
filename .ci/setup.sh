# Sourced by ./demo, ./check and its stages: shows the steps, and installs what they need.

# command:package; without a command, what only Debian has, or a part of Qt that the configure step looks for.
tools=(c++:g++ cmake:cmake ninja:ninja-build curl:curl sqlite3:sqlite3 python3:python3
    nginx:nginx-light tinyproxy:tinyproxy-bin microsocks:microsocks openssl:openssl
    :qt6-base-dev :libqt6sql6-sqlite)

# Everything that runs here talks to this machine alone; no proxy may stand between.
export no_proxy=127.0.0.1,::1,localhost NO_PROXY=127.0.0.1,::1,localhost

step() {
    printf '\n\033[1m== %s\033[0m\n' "$*" | if [ -t 1 ]; then cat; else sed 's/\x1b\[[0-9]*m//g'; fi
}

# leave_out REASON: ends a stage that this system cannot run. ./check goes on, and says so in the end,
# unless it was asked for that stage.
leave_out() {
    mkdir -p build
    echo "${0##*/} $*" | tee build/left-out >&2
    exit 1
}

# installed COMMAND: servers may be where only root looks.
installed() {
    PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin command -v "$1" >/dev/null
}

# without_services COMMAND...: Debian starts the servers that it installs. These are for the tests
# to start, so packages are told not to meanwhile, unless the machine has a policy of its own.
without_services() (
    policy=/usr/sbin/policy-rc.d
    if [ ! -e $policy ] && [ ! -L $policy ]; then
        trap '"${as_root[@]}" rm -f $policy' EXIT
        printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" install -m 755 /dev/stdin $policy
    fi
    "$@"
)

# install_missing [COMMAND:PACKAGE]...: the tools above and these. By apt on Debian and Ubuntu.
# Elsewhere, names what is missing and stops.
install_missing() {
    local missing=() tool
    if ! command -v apt-get >/dev/null; then
        for tool in "${tools[@]}" "$@"; do
            [ -z "${tool%%:*}" ] || installed "${tool%%:*}" || missing+=("${tool%%:*}")
        done
        [ ${#missing[@]} -eq 0 ] && return
        echo "Missing: ${missing[*]}. Install them (CMake 3.25 or later), and Qt 6.4 or later (Core," \
            "Network, Sql with SQLite, Test, Widgets), then run this again." >&2
        exit 1
    fi

    for tool in "${tools[@]}" "$@"; do
        # A command may come from elsewhere, and Debian's package may conflict with that.
        if [ -n "${tool%%:*}" ]; then
            installed "${tool%%:*}" || missing+=("${tool#*:}")
        else
            [ "$(dpkg-query -W -f '${db:Status-Status}' "${tool#*:}" 2>/dev/null)" = installed ] ||
                missing+=("${tool#*:}")
        fi
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
    without_services "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}
