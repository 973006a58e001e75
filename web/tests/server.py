"""Runs `ravelin serve` over a fixture folder for the web host's tests."""

import os
import shutil
import signal
import struct
import subprocess
import tempfile
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
    return root, home


class Server:
    """`ravelin --root ROOT serve`, started and read up to its address."""

    def __init__(self, root, home):
        self.root, self.home = root, home
        # Below a root, HOME names the home as the root holds it.
        env = dict(os.environ, HOME="/" + os.path.relpath(home, root))
        self.process = subprocess.Popen([BINARY, "--root", root, "serve"], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env=env, text=True)
        self.address = self.process.stdout.readline().strip()
        if not self.address.startswith("http://127.0.0.1:"):
            self.process.kill()
            raise RuntimeError("ravelin serve printed no address: " + self.process.stderr.read())
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
            return self.process.wait(timeout=60)
        finally:
            self.process.stdout.close()
            self.process.stderr.close()


def remove_fixture(root):
    shutil.rmtree(root, ignore_errors=True)
