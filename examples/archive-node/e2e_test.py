#!/usr/bin/env python3
"""End-to-end run of archive_node with archive_client and comctl.

  e2e_test.py --bin DIR --comctl PATH --mode stop|kill|frames

stop and kill send studies from four client threads and stop the node with
the stop event or SIGKILL while they send; frames speaks the wire format
directly (rejected UIDs, broken frames, an empty study) and ends the node
with SIGTERM.

Runs in a mount namespace of its own with a fresh /dev/shm, so that the
machine-wide stop event it signals reaches only the node it started. Exit 0
on success, 1 on a failed check, 77 when it cannot isolate itself (not root).
"""
import argparse
import hashlib
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import zlib

STUDIES = 200
THREADS = 4
STUDY_BYTES = 256 * 1024


def fail(message):
    print("FAIL:", message, flush=True)
    sys.exit(1)


def isolate():
    if os.environ.get("ARCHIVE_E2E_ISOLATED") == "1":
        return
    if os.geteuid() != 0 or shutil.which("unshare") is None:
        print("SKIP: needs root and unshare for a private /dev/shm")
        sys.exit(77)
    env = dict(os.environ, ARCHIVE_E2E_ISOLATED="1")
    cmd = ["unshare", "-m", "--propagation", "private", "sh", "-c",
           'mount -t tmpfs tmpfs /dev/shm && exec "$@"', "sh",
           sys.executable] + sys.argv
    sys.exit(subprocess.call(cmd, env=env))


def bucket(uid):
    """The bucket of a UID: the PJW hash of its bytes, last to first, each
    weighted by 13 as a signed byte, kept to 32 bits; then modulo 127."""
    h = 0
    for byte in reversed(uid.encode()):
        value = byte - 256 if byte > 127 else byte
        h = ((h << 4) + value * 13) & 0xFFFFFFFF
        top = h & 0xF0000000
        if top:
            h ^= top >> 24
            h &= ~top & 0xFFFFFFFF
    return "%04d" % (h % 127)


def wait_for(what, condition, seconds):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.02)
    fail("timed out after %ss waiting for %s" % (seconds, what))


def read_manifest(path):
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return [l.split() for l in f.read().splitlines() if l.count(" ") == 2]


def inflate(block):
    """The bytes of a compressed block: a 32-bit little-endian length word,
    then one zlib stream; None when the block is not complete."""
    if len(block) < 4:
        return None
    try:
        data = zlib.decompress(block[4:])
    except zlib.error:
        return None
    if len(data) != int.from_bytes(block[:4], "little"):
        return None
    return data


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True)
    parser.add_argument("--comctl", required=True)
    parser.add_argument("--mode", choices=["stop", "kill", "frames"], required=True)
    args = parser.parse_args()
    isolate()

    work = tempfile.mkdtemp(prefix="archive-e2e-")
    root = os.path.join(work, "root")
    manifest = os.path.join(work, "acknowledged.txt")
    port_file = os.path.join(work, "port")
    config = os.path.join(work, "kelvane.ini")
    with open(config, "w") as f:
        f.write("[Software\\Kelvane\\ArchiveNode]\n"
                "StorageRoot = %s\nPort = 0\nPortFile = %s\n"
                "WatchdogInterval = 1\nExitDelay = 20\n" % (root, port_file))
    notify_path = os.path.join(work, "notify")
    notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    notify.bind(notify_path)
    notify.setblocking(False)
    states = []

    def drain_notify():
        while True:
            try:
                states.extend(notify.recv(4096).decode().split("\n"))
            except BlockingIOError:
                return states

    env = dict(os.environ, KELVANE_CONFIG=config, NOTIFY_SOCKET=notify_path)
    if args.mode == "frames":
        frames(args, env, root, port_file, drain_notify, work)
        return
    node_log = open(os.path.join(work, "node.log"), "w")
    node = subprocess.Popen([os.path.join(args.bin, "archive_node")], env=env,
                            stdout=node_log, stderr=subprocess.STDOUT)
    client = None
    try:
        wait_for("READY=1", lambda: "READY=1" in drain_notify(), 20)
        wait_for("the port file", lambda: os.path.exists(port_file), 5)
        wait_for("WATCHDOG=1", lambda: "WATCHDOG=1" in drain_notify(), 20)
        port = open(port_file).read().strip()
        client = subprocess.Popen(
            [os.path.join(args.bin, "archive_client"), "send", "--port", port,
             "--threads", str(THREADS), "--count", str(STUDIES), "--size",
             str(STUDY_BYTES), "--manifest", manifest])
        wait_for("20 acknowledged studies",
                 lambda: len(read_manifest(manifest)) >= 20, 60)
        if args.mode == "stop":
            stop = subprocess.run([args.comctl, "stop"], capture_output=True, text=True)
            if stop.returncode != 0:
                fail("comctl stop: %s" % stop.stderr)
        else:
            node.send_signal(signal.SIGKILL)
        stopped_at = len(read_manifest(manifest))
        try:
            code = node.wait(timeout=30)
        except subprocess.TimeoutExpired:
            fail("the node did not exit within 30 s")
        try:
            client.wait(timeout=30)
        except subprocess.TimeoutExpired:
            fail("the client did not end within 30 s of the node")
    finally:
        for p in (node, client):
            if p is not None and p.poll() is None:
                p.kill()
                p.wait()
        node_log.close()

    acknowledged = read_manifest(manifest)
    print("acknowledged %d studies, %d when the node was %s"
          % (len(acknowledged), stopped_at, "stopped" if args.mode == "stop" else "killed"))
    if stopped_at >= STUDIES:
        fail("the clients had finished before the node was stopped")
    if args.mode == "stop":
        if code != 0:
            fail("the node exited with %d:\n%s" % (code, open(node_log.name).read()))
        if "STOPPING=1" not in drain_notify():
            fail("no STOPPING=1 from the node")
    elif code != -signal.SIGKILL:
        fail("the node ended with %d instead of being killed" % code)

    # Every acknowledged study, checked without the library: hashed path,
    # the block inflating to the bytes sent, the .dts naming path and UID.
    for uid, size, sha in acknowledged:
        folder = os.path.join(root, bucket(uid), uid)
        try:
            block = open(os.path.join(folder, "study.z"), "rb").read()
            dts = open(folder + ".dts").read()
        except OSError as e:
            fail("acknowledged study %s missing: %s" % (uid, e))
        data = inflate(block)
        if data is None or len(data) != int(size):
            fail("study %s does not inflate to %s bytes" % (uid, size))
        if hashlib.sha256(data).hexdigest() != sha.lower():
            fail("study %s: SHA-256 differs from the bytes sent" % uid)
        if not dts.startswith("dts://") or ("?p=%s&" % folder) not in dts \
                or ("&suid=%s" % uid) not in dts:
            fail("study %s: .dts holds %r" % (uid, dts))
    # No study under its final name is half-written, acknowledged or not.
    for dirpath, _, files in os.walk(root):
        for name in files:
            if name == "study.z":
                block = open(os.path.join(dirpath, name), "rb").read()
                if inflate(block) is None:
                    fail("half-written %s" % os.path.join(dirpath, name))
            elif ".tmp" in name and args.mode == "stop":
                fail("temporary file left after a clean stop: %s" % name)
    # And through the library: the .dts URLs parse back to path and UID.
    verify = subprocess.run([os.path.join(args.bin, "archive_client"), "verify",
                             "--root", root, "--manifest", manifest],
                            capture_output=True, text=True)
    if verify.returncode != 0:
        fail("archive_client verify:\n%s%s" % (verify.stdout, verify.stderr))
    shutil.rmtree(work)
    print("PASS")


def frame(uid, data, uid_length=None, data_length=None):
    uid = uid.encode()
    return (len(uid) if uid_length is None else uid_length).to_bytes(4, "little") + uid + \
        (len(data) if data_length is None else data_length).to_bytes(8, "little") + data


def answer(sock):
    """The node's one-byte answer, or b"" once it closed the connection."""
    sock.settimeout(20)
    try:
        return sock.recv(1)
    except ConnectionResetError:
        return b""


def frames(args, env, root, port_file, drain_notify, work):
    node = subprocess.Popen([os.path.join(args.bin, "archive_node")], env=env,
                            stdout=open(os.path.join(work, "node.log"), "w"),
                            stderr=subprocess.STDOUT)
    try:
        wait_for("READY=1", lambda: "READY=1" in drain_notify(), 20)
        wait_for("the port file", lambda: os.path.exists(port_file), 5)
        port = int(open(port_file).read())
        with socket.create_connection(("127.0.0.1", port)) as s:
            # UIDs the node refuses are answered R, and the connection goes on.
            for bad in ["1..2", "1.2.", "1.2.x", ".1"]:
                s.sendall(frame(bad, b"abc"))
                if answer(s) != b"R":
                    fail("UID %r was not rejected" % bad)
                if os.path.exists(os.path.join(root, bucket(bad), bad)):
                    fail("rejected UID %r was stored" % bad)
            # An empty study is refused, a small one stored.
            s.sendall(frame("1.2.3.4", b""))
            if answer(s) != b"R":
                fail("empty study not rejected")
            payload = bytes(range(256)) * 3
            s.sendall(frame("1.2.3.5", payload))
            if answer(s) != b"S":
                fail("small study not stored")
        for uid, data in (("1.2.3.5", payload),):
            block = open(os.path.join(root, bucket(uid), uid, "study.z"), "rb").read()
            if inflate(block) != data:
                fail("study %s does not inflate to the bytes sent" % uid)
        # Frames that break the limits close the connection without an answer.
        for name, raw in (("UID length 0", frame("", b"x", uid_length=0)),
                          ("UID length 65", (65).to_bytes(4, "little") + b"1" * 65),
                          ("study above 256 MiB", frame("1.2.3.6", b"", data_length=(256 << 20) + 1))):
            with socket.create_connection(("127.0.0.1", port)) as s:
                s.sendall(raw)
                if answer(s) != b"":
                    fail("%s was answered instead of closing the connection" % name)
        if os.path.exists(os.path.join(root, bucket("1.2.3.6"), "1.2.3.6")):
            fail("an oversized study was stored")
        # A study cut short by its client is not stored.
        with socket.create_connection(("127.0.0.1", port)) as s:
            s.sendall(frame("1.2.3.7", b"", data_length=1000) + b"x" * 10)
        node.send_signal(signal.SIGTERM)
        code = node.wait(timeout=30)
    finally:
        if node.poll() is None:
            node.kill()
            node.wait()
    if code != 0:
        fail("the node exited with %d after SIGTERM" % code)
    if "STOPPING=1" not in drain_notify():
        fail("no STOPPING=1 after SIGTERM")
    if os.path.exists(os.path.join(root, bucket("1.2.3.7"), "1.2.3.7")):
        fail("a study cut short was stored")
    shutil.rmtree(work)
    print("PASS")


if __name__ == "__main__":
    main()
