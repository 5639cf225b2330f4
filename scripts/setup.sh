#!/usr/bin/env bash
# Installs the Debian packages the project builds with, when any is missing.
set -euo pipefail

packages=(cmake g++ make pkg-config qtbase5-dev libqt5serialport5-dev libcsv-dev googletest
          libgtest-dev libbenchmark-dev tar libcli11-dev zlib1g-dev clang locales
          libgmp-dev libclang-rt-14-dev libqt5charts5-dev fonts-dejavu-core
          libboost-dev
          qtdeclarative5-dev qtquickcontrols2-5-dev qml-module-qtquick2 qml-module-qtquick-window2
          qml-module-qtquick-controls2 qml-module-qtquick-templates2 qml-module-qtquick-layouts
          qml-module-qtquick-dialogs qml-module-qt-labs-platform qml-module-qtqml-models2
          qml-module-qtcharts qml-module-qttest xvfb xauth libgl1-mesa-dri
          help2man lintian desktop-file-utils bash-completion man-db fakeroot dpkg-dev file gzip)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
