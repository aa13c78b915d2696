# Debian packages by what they are for, and their installation. Sourced by the commands.
build_packages="g++ cmake ninja-build ccache pkg-config qtbase5-dev libssl-dev libglib2.0-dev libjpeg62-turbo-dev"
test_packages="libgtest-dev python3 apache2 apache2-utils nginx-light lighttpd ffmpeg curl wrk chromium iproute2 locales openssl gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good python3-gi gir1.2-gstreamer-1.0 gir1.2-gst-rtsp-server-1.0 gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav vlc-bin vlc-plugin-base"
sanitizer_packages="clang libclang-rt-14-dev"
format_packages="clang-format clang-tidy"
bench_packages="libasio-dev libuv1-dev libcurl4-openssl-dev libboost-dev libevent-dev libpoco-dev libbenchmark-dev libgstreamer-plugins-base1.0-dev libavformat-dev gstreamer1.0-plugins-good python3 nginx-light wrk"

# Installs what is missing, quietly and at once; a clear message when that fails.
install_packages() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
    done
    [ -z "$missing" ] && return 0
    echo "Installing:$missing"
    if [ "$(id -u)" != 0 ]; then
        echo "These packages are missing, and installing them takes root:$missing" >&2
        return 1
    fi
    log=$(mktemp)
    # Servers that packages bring are started by our tests only.
    policy=/usr/sbin/policy-rc.d
    made_policy=
    if [ ! -e $policy ]; then
        printf '#!/bin/sh\nexit 101\n' >$policy
        chmod +x $policy
        made_policy=yes
    fi
    installed=yes
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing; } >"$log" 2>&1 || installed=
    [ -z "$made_policy" ] || rm -f $policy
    if [ -z "$installed" ]; then
        tail -n 20 "$log" >&2
        echo "apt-get could not install:$missing" >&2
        return 1
    fi
    rm -f "$log"
}
