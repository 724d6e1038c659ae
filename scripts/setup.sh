#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running Tessarin need.
# Checks each with dpkg first, so it needs no root (and no network) when all are present.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ pkg-config
  # libraries
  nlohmann-json3-dev libfmt-dev libcli11-dev libsystemd-dev libssl-dev libacl1-dev libicu-dev
  uuid-dev libvips-dev fonts-dejavu-core libcurl4-openssl-dev
  # the API key in the system keyring (Secret Service), and a keyring and bus for its tests
  libsecret-1-dev gnome-keyring dbus
  # application core (QtCore models)
  qt6-base-dev
  # the trim editor's player (Qt Multimedia plays through GStreamer)
  qt6-multimedia-dev gstreamer1.0-plugins-good gstreamer1.0-libav
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev acl btrfs-progs xvfb xauth
  # a loopback HTTPS server with a certificate of its own, and curl to measure uploads against
  openssl python3 curl
  # a decimal-comma locale, to show that numbers never follow the user's locale
  locales-all
  # fuzz targets: clang with its libFuzzer and sanitizer runtimes
  clang libclang-rt-14-dev lld
  # runtime: the media tools run as child processes
  ffmpeg gifsicle
  # runtime: the user's videos folder for recordings (xdg-user-dir)
  xdg-user-dirs
  # screen recording: GStreamer capture and encoding, X11 sources, PulseAudio and PipeWire
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-base
  gstreamer1.0-plugins-ugly gstreamer1.0-plugins-bad gstreamer1.0-pulseaudio
  gstreamer1.0-pipewire gstreamer1.0-x libx11-dev libxrandr-dev
  # recording tests and benchmark: a private sound server, X tools, gst-launch
  pulseaudio pulseaudio-utils x11-utils xdotool gstreamer1.0-tools
  # the desktop around it: SMB hosts through Avahi, update feeds as XML, the .deb and its checks
  libavahi-client-dev avahi-utils libxml2-dev desktop-file-utils lintian dpkg-dev appstream
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg -s "$package" >/dev/null 2>&1; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "setup: installing ${missing[*]}" >&2
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq </dev/null
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
