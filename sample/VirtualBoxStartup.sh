#!/bin/bash
# Starts the driver that the emulator needs. The installer reads only the words printed here.
set -euo pipefail

if [[ "${1:-}" != restart ]]; then
    echo "Usage: VirtualBoxStartup.sh restart" >&2
    exit 2
fi

loaded() {
    if [[ -e /proc/modules ]]; then
        grep -qs '^vboxdrv ' /proc/modules
    else
        [[ -d /sys/module/vboxdrv ]]
    fi
}

echo "Unloading the emulator's drivers"
echo "Loading VBoxDrv.kext"
if ! loaded && [[ $(id -u) -eq 0 ]] && command -v modprobe >/dev/null; then
    modprobe vboxdrv >/dev/null 2>&1 || true
fi
if ! loaded; then
    echo "Error: the kernel did not take VBoxDrv, a driver of VirtualBox"
    exit 1
fi
echo "VBoxDrv.kext is loaded"
