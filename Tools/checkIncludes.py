#!/usr/bin/env python3
"""Holds which folder may include which, and fails when a file breaks it.

Each folder is one target with private dependencies, so a forbidden link fails by itself; what this
finds is the header that needs no link.
"""
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

# Folder -> folders of ours that it may include besides itself. The longest matching prefix rules.
KIT = ["VelmoraKit"]
PLATFORM_PORTS = ["Platform"]
ALLOWED = {
    "VelmoraKit/Core": [],
    "VelmoraKit/Wire": ["VelmoraKit/Core"],
    "VelmoraKit/Media": ["VelmoraKit/Core", "VelmoraKit/Wire"],
    "VelmoraKit/Transport": ["VelmoraKit/Core", "VelmoraKit/Wire"],
    "VelmoraKit/Signaling": ["VelmoraKit/Core", "VelmoraKit/Wire"],
    "Platform/Linux": KIT + PLATFORM_PORTS,
    "Platform": ["VelmoraKit/Core", "VelmoraKit/Wire", "VelmoraKit/Transport/Endpoint.h"],
    "Shared": KIT + PLATFORM_PORTS,
    "Host": KIT + PLATFORM_PORTS + ["Shared"],
    "Viewer/Session": KIT + PLATFORM_PORTS + ["Shared"],
    "Viewer/Window": KIT + PLATFORM_PORTS + ["Shared", "Viewer/Session"],
    "Agent": KIT + PLATFORM_PORTS + ["Shared", "Viewer/Session"],
    "App": KIT + PLATFORM_PORTS + ["Shared", "Host", "Viewer", "Agent"],
    "Rendezvous": ["VelmoraKit/Core", "VelmoraKit/Wire"],
    "Testing": KIT + PLATFORM_PORTS,
}
FREE = ("Tests", "Benchmarks", "Tools")  # include what they exercise

# System headers that belong behind Platform/Linux, and where else they may stand.
OS_HEADER = re.compile(
    r"^(X11/|xcb/|xkbcommon/|gnutls/|ngtcp2/|x264|x265|libav|libyuv|avahi|libsecret|glib|gio/|systemd/|"
    r"sys/(socket|epoll|eventfd|timerfd|inotify|file|mman|shm|wait|prctl|un|stat|ioctl)|netinet/|arpa/|ifaddrs|netdb|"
    r"unistd|fcntl|poll\.h|pthread|dlfcn|linux/|png\.h|turbojpeg|Q[A-Z])")
QT_WINDOWS = ("App", "Viewer/Window")
OS_EXEMPT = {
    "VelmoraKit/Core/ThreadQueue.cpp",  # names its thread
}
OS_FREE_FOLDERS = ("Platform/Linux", "Tests", "Benchmarks", "Tools", "Rendezvous")

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def folder_of(path: str) -> str | None:
    matches = [f for f in ALLOWED if path.startswith(f + "/")]
    return max(matches, key=len) if matches else None


def starts_within(target: str, folders: list[str]) -> bool:
    return any(target == f or target.startswith(f + "/") for f in folders)


def faults_of(path: str) -> list[str]:
    faults = []
    is_test = path.endswith("Test.cpp") or path.startswith(FREE) or path.startswith("Testing/")
    folder = folder_of(path)
    if folder is None and not path.startswith(FREE):
        return [f"{path}: in no known folder"]
    composes = path.startswith("App/Composition") or is_test
    for number, line in enumerate((ROOT / path).read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        kind, target = match.groups()
        where = f"{path}:{number}: includes {target}"
        if kind == '"':
            owner = folder_of(target) or target.split("/")[0]
            if owner == folder or is_test:
                continue
            if owner == "Testing":
                faults.append(f"{where}: product code never includes Testing")
            elif owner == "Platform/Linux":
                if not composes and folder != "Platform/Linux":
                    faults.append(f"{where}: only a composition names a Linux class")
            elif folder and not starts_within(target, ALLOWED[folder]):
                faults.append(f"{where}: {folder} may not")
        elif OS_HEADER.match(target):
            if path in OS_EXEMPT or path.startswith(OS_FREE_FOLDERS) or is_test:
                continue
            if target.startswith("Q") and path.startswith(QT_WINDOWS):
                continue
            faults.append(f"{where}: system headers stay under Platform/Linux")
    return faults


def main() -> int:
    listed = subprocess.run(["git", "ls-files", "*.h", "*.cpp"], cwd=ROOT, capture_output=True, text=True, check=True)
    paths = listed.stdout.split()
    faults = [fault for path in paths if (ROOT / path).exists() for fault in faults_of(path)]
    for fault in faults:
        print(fault)
    if not paths:
        print("no file was checked")
        return 1
    print(f"includes of {len(paths)} files checked, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
