"""Runs `ravelin serve` over a fixture folder for the web host's tests."""

import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import zlib

BINARY = os.environ.get("RAVELIN_BINARY", "ravelin")


def png(seed):
    """A small valid PNG whose pixels depend on `seed`."""
    width = height = 8
    rows = b"".join(b"\x00" + bytes((seed * 37 + x * 11 + y * 5) % 256 for x in range(width * 3))
                    for y in range(height))

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows))
            + chunk(b"IEND", b""))


def make_fixture():
    """A root folder with a home holding groups of copies: pictures, documents, and singles."""
    root = tempfile.mkdtemp(prefix="ravelin-web-")
    home = os.path.join(root, "home", "ada")
    files = {
        "Pictures/beach.png": png(1),
        "Pictures/backup/beach.png": png(1),
        "Desktop/beach copy.png": png(1),
        "Pictures/hills.png": png(2),
        "Pictures/backup/hills.png": png(2),
        "Documents/report.txt": b"quarterly figures\n" * 200,
        "Documents/old/report.txt": b"quarterly figures\n" * 200,
        "Documents/notes.txt": b"only one of these\n",
        "Music/song.ogg": b"OggS" + b"\x01" * 5000,
        "Downloads/song.ogg": b"OggS" + b"\x01" * 5000,
    }
    for name, data in files.items():
        path = os.path.join(home, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(data)
    # Space: large files two folders down, each its own bytes.
    for name, size in (("Videos/holiday.mkv", 3 << 20), ("Videos/2024/clip.mkv", 2 << 20),
                       ("Videos/2024/raw/take1.mkv", 1 << 20), ("Music/album/01.ogg", 900 << 10),
                       ("Music/album/02.ogg", 700 << 10), ("Projects/site/build.tar", 1200 << 10),
                       ("Projects/notes.pdf", 300 << 10), ("Downloads/installer.tar", 1500 << 10)):
        write(os.path.join(home, name), os.urandom(size))
    # Junk: a system cache, a rotated log no one writes, a trashed file with its description,
    # an application's settings and cache left by no installed application.
    write(os.path.join(root, "var/cache/fontconfig/0a1b.cache-8"), b"\0" * 4096)
    write(os.path.join(root, "var/log/syslog"), b"live\n")
    write(os.path.join(root, "var/log/syslog.2.gz"), b"\x1f\x8b" + b"\0" * 2000, age=3 * 86400)
    write(os.path.join(home, ".local/share/Trash/files/old draft.txt"), b"draft\n" * 100)
    write(os.path.join(home, ".local/share/Trash/info/old draft.txt.trashinfo"),
          b"[Trash Info]\nPath=/home/ada/old%20draft.txt\nDeletionDate=2026-01-01T10:00:00\n")
    write(os.path.join(home, ".config/vlc/vlcrc"), b"[core]\n" * 50)
    write(os.path.join(home, ".cache/vlc/art.jpg"), os.urandom(3000))
    # An installed application with a cache of its own.
    write(os.path.join(root, "usr/share/applications/org.gnome.TextEditor.desktop"),
          b"[Desktop Entry]\nType=Application\nName=Text Editor\nExec=gnome-text-editor %U\n"
          b"Icon=org.gnome.TextEditor\n")
    write(os.path.join(root, "usr/share/icons/hicolor/48x48/apps/org.gnome.TextEditor.png"), png(3))
    write(os.path.join(root, "usr/bin/gnome-text-editor"), b"#!/bin/sh\n", mode=0o755)
    write(os.path.join(home, ".cache/gnome-text-editor/state"), b"x" * 5000)
    write(os.path.join(home, ".config/gnome-text-editor/settings.ini"), b"[editor]\nwrap=true\n")
    # Startup: a login item of the user's.
    write(os.path.join(home, ".config/autostart/sync.desktop"),
          b"[Desktop Entry]\nType=Application\nName=Sync\nExec=/usr/bin/true\n")
    return root, home


def write(path, data, age=0, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as out:
        out.write(data)
    os.chmod(path, mode)
    if age:
        then = time.time() - age
        os.utime(path, (then, then))


class Server:
    """`ravelin --root ROOT serve`, started and read up to its address."""

    def __init__(self, root, home, arguments=(), env=None):
        self.root, self.home = root, home
        # Below a root, HOME names the home as the root holds it.
        env = dict(env or os.environ, HOME="/" + os.path.relpath(home, root))
        # What the server says goes to a file, shown when it ends badly (a sanitizer's report).
        self.log = tempfile.TemporaryFile(mode="w+")
        self.process = subprocess.Popen([BINARY, "--root", root, "serve", *arguments], stdout=subprocess.PIPE,
                                        stderr=self.log, env=env, text=True)
        self.address = self.process.stdout.readline().strip()
        if not self.address.startswith("http://127.0.0.1:"):
            self.process.kill()
            raise RuntimeError("ravelin serve printed no address: " + self.said())
        self.origin, _, self.token = self.address.partition("/?token=")
        self.port = int(self.origin.rsplit(":", 1)[1])

    def resident_kb(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def stop(self):
        """Ends the server as Ctrl-C would; gives its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(timeout=60)
            if status != 0:
                sys.stderr.write(f"ravelin serve ended with {status}:\n{self.said()}\n")
            return status
        finally:
            self.process.stdout.close()
            self.log.close()

    def said(self):
        self.log.seek(0)
        return self.log.read()[-20000:]


def remove_fixture(root):
    shutil.rmtree(root, ignore_errors=True)
