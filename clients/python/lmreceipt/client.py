"""Client for the lmreceipt service, in plain Python (standard library only).

    import lmreceipt
    result = lmreceipt.analyze("receipt.pdf", currency="EUR", taxes=[7, 19])
    result["gross"]     # decimal.Decimal('15.3')
    result["date"]      # datetime.datetime(..., tzinfo=datetime.timezone.utc)

A call is one connection to the service's local socket: one request frame
carrying the task as a keyed archive, one reply frame carrying the result
archive or an error (docs/protocol.md). When nothing listens on the socket the
client starts the service executable and retries for a few seconds, as the
C++ client does. A call gives up after `timeout` seconds (default 120),
starting the service and connecting included. See clients/python/README.md.
"""

from __future__ import annotations

import decimal
import errno
import os
import shutil
import socket
import stat
import struct
import subprocess
import time
from typing import Any, Iterable

from . import _paths
from .keyed_archive import ArchiveError, archive, unarchive

DEFAULT_SERVICE_NAME = "lmreceipt-service"
ERROR_DOMAIN = "com.brightmoor.error"
ERROR_CODE = 101

_MAGIC = b"LMXP"
_VERSION = 1
_KIND_REQUEST = 0
_KIND_RESULT = 0
_KIND_ERROR = 1
_HEADER = struct.Struct(">4sBBxxQ")
_MAX_FRAME_BYTES = 256 << 20
_CONNECT_PATIENCE = 5.0
DEFAULT_TIMEOUT = 120.0
_SOCKET_PATH_LIMIT = 108  # sizeof(sockaddr_un.sun_path) on Linux


class ServiceError(Exception):
    """An error reply of the service, or a call that got no reply."""

    def __init__(self, message: str, domain: str = ERROR_DOMAIN, code: int = ERROR_CODE):
        super().__init__(message)
        self.message = message
        self.domain = domain
        self.code = code


class ServiceNotReachable(ServiceError):
    """The service could not be started or reached, or sent no reply."""

    def __init__(self, why: str):
        super().__init__("Service not reachable: " + why)


# --- Frames ------------------------------------------------------------------

def _frame(kind: int, payload: bytes) -> bytes:
    return _HEADER.pack(_MAGIC, _VERSION, kind, len(payload)) + payload


class _Deadline:
    """When a call gives up; None: never."""

    def __init__(self, timeout: float | None):
        self.timeout = timeout
        self.at = None if timeout is None or timeout <= 0 else time.monotonic() + timeout

    def left(self) -> float | None:
        """Seconds left (None for no limit); raises ServiceNotReachable when none are."""
        if self.at is None:
            return None
        left = self.at - time.monotonic()
        if left <= 0:
            raise self.expired()
        return left

    def expired(self) -> ServiceNotReachable:
        return ServiceNotReachable(f"The service did not answer within {self.timeout:g} s")

    def arm(self, sock: socket.socket) -> None:
        sock.settimeout(self.left())


def _read_exactly(sock: socket.socket, size: int, deadline: _Deadline) -> bytes:
    chunks, have = [], 0
    while have < size:
        deadline.arm(sock)
        chunk = sock.recv(min(size - have, 1 << 20))
        if not chunk:
            break
        chunks.append(chunk)
        have += len(chunk)
    return b"".join(chunks)


def _read_frame(sock: socket.socket, deadline: _Deadline) -> tuple[int, bytes]:
    header = _read_exactly(sock, _HEADER.size, deadline)
    if len(header) < _HEADER.size:
        raise ServiceNotReachable("The service closed the connection without a reply")
    magic, version, kind, length = _HEADER.unpack(header)
    if magic != _MAGIC or version != _VERSION or header[6:8] != b"\0\0":
        raise ServiceNotReachable("The service's reply is not a frame")
    if length > _MAX_FRAME_BYTES:
        raise ServiceNotReachable("The service's reply is too large")
    payload = _read_exactly(sock, length, deadline)
    if len(payload) < length:
        raise ServiceNotReachable("The service closed the connection without a reply")
    return kind, payload


def _parse_error(payload: bytes) -> ServiceError:
    try:
        (code,) = struct.unpack_from(">q", payload, 0)
        at, texts = 8, []
        for _ in range(2):
            (size,) = struct.unpack_from(">I", payload, at)
            text = payload[at + 4:at + 4 + size]
            if len(text) != size:
                raise ValueError("short")
            texts.append(text.decode("utf-8"))
            at += 4 + size
        if at != len(payload):
            raise ValueError("bytes left over")
    except (struct.error, ValueError, UnicodeDecodeError):
        raise ServiceNotReachable("The service's error reply is malformed") from None
    return ServiceError(texts[1], domain=texts[0], code=code)


# --- Finding and starting the service ---------------------------------------

def _private_directory(path: str, follow_links: bool) -> bool:
    try:
        st = os.stat(path) if follow_links else os.lstat(path)
    except OSError:
        return False
    return stat.S_ISDIR(st.st_mode) and st.st_uid == os.geteuid() and st.st_mode & 0o077 == 0


def socket_path(service_name: str = DEFAULT_SERVICE_NAME) -> str:
    """Where the service listens: $XDG_RUNTIME_DIR/<name>.sock, or
    /tmp/<name>-<uid>/<name>.sock when XDG_RUNTIME_DIR is unset or not a
    private folder of this user. Raises ServiceNotReachable when neither
    folder can be trusted."""
    if not service_name or service_name in (".", "..") or "/" in service_name \
            or "\0" in service_name:
        raise ValueError(f"not a service name: {service_name!r}")
    file = service_name + ".sock"
    runtime = os.environ.get("XDG_RUNTIME_DIR", "")
    if runtime.startswith("/"):
        path = os.path.join(runtime, file)
        if len(path.encode()) < _SOCKET_PATH_LIMIT and _private_directory(runtime, True):
            return path
    folder = f"/tmp/{service_name}-{os.geteuid()}"
    fix = "; remove it or set XDG_RUNTIME_DIR to a folder of yours that only you may enter"

    def refuse(why: str):
        return ServiceNotReachable(f"No private folder for the socket of {service_name}: {why}")

    try:
        os.mkdir(folder, 0o700)
    except FileExistsError:
        pass
    except OSError as e:
        raise refuse(f"Cannot make the folder {folder}: {e.strerror}{fix}") from None
    # Not following links: in /tmp anyone may have made the name first.
    st = os.lstat(folder)
    if not stat.S_ISDIR(st.st_mode):
        raise refuse(f"{folder} is not a folder (a link or a file){fix}")
    if st.st_uid != os.geteuid():
        raise refuse(f"{folder} belongs to user {st.st_uid}, not to you (user {os.geteuid()}){fix}")
    if st.st_mode & 0o077:
        raise refuse(f"{folder} has mode {stat.S_IMODE(st.st_mode):04o}, so others may enter it; "
                     f"run chmod 700 {folder} (or remove it)")
    path = os.path.join(folder, file)
    if len(path.encode()) >= _SOCKET_PATH_LIMIT:
        raise refuse(f"{path} is too long for a socket address")
    return path


def find_service_executable(service_name: str = DEFAULT_SERVICE_NAME) -> str | None:
    """$LM_SERVICE_DIR/<name> when LM_SERVICE_DIR is set, else <name> in the
    build folder of the repository this module sits in (build/, where
    scripts/demo.sh and scripts/test.sh put it), else <name> where the
    package's installation put the service, else <name> on PATH."""
    folder = os.environ.get("LM_SERVICE_DIR")
    if folder:
        return os.path.join(folder, service_name)
    here = os.path.dirname(os.path.abspath(__file__))
    for folder in (os.path.join(here, "..", "..", "..", "build"), _paths.SERVICE_DIR):
        candidate = os.path.join(folder, service_name) if folder else ""
        if os.path.isfile(candidate) and os.access(candidate, os.X_OK):
            return os.path.normpath(candidate)
    return shutil.which(service_name)


class ServiceClient:
    """Calls one service, starting it when nothing listens.

    executable: the service program to start on demand; default
    find_service_executable(service_name). It is started with service_name
    as its program name, which names its socket. The service ends by itself
    after a minute without calls; `started` is the process this client
    started (or None), for callers that want to end it sooner.
    timeout: seconds a call may take in all, starting the service and
    connecting included (None or 0: no limit).
    """

    def __init__(self, service_name: str = DEFAULT_SERVICE_NAME, executable: str | None = None,
                 timeout: float | None = DEFAULT_TIMEOUT):
        self.service_name = service_name
        self.executable = executable
        self.timeout = timeout
        self.started: subprocess.Popen | None = None

    def call(self, task: Any) -> Any:
        """Sends `task` (a dict of plain values) and returns the decoded
        result (None for a reply without bytes). Raises ServiceError for an
        error reply, ServiceNotReachable when no reply came in time."""
        request = archive(task)
        if len(request) > _MAX_FRAME_BYTES:
            raise ServiceError("Request too large")
        deadline = _Deadline(self.timeout)
        with self._connect(deadline) as sock:
            try:
                deadline.arm(sock)
                sock.sendall(_frame(_KIND_REQUEST, request))
            except socket.timeout:
                raise deadline.expired() from None
            except OSError:
                pass  # a service that refuses the request still answers; read it
            try:
                kind, payload = _read_frame(sock, deadline)
            except socket.timeout:
                raise deadline.expired() from None
        if kind == _KIND_ERROR:
            raise _parse_error(payload)
        if kind != _KIND_RESULT:
            raise ServiceNotReachable("The service's reply has an unknown kind")
        return unarchive(payload) if payload else None

    def boot(self) -> Any:
        """The warm-up call: starts the service if needed; returns {"boot": "success"}."""
        return self.call({"__boot": True})

    def analyze(self, path: str | os.PathLike, currency: str = "",
                taxes: Iterable[int | float | decimal.Decimal] = (),
                facts: bool = False, facts_from: str = "best") -> dict:
        """The analysis of the PDF (or, with facts, e-invoice XML) at `path`
        (see the module's analyze)."""
        with open(path, "rb") as f:
            data = f.read()
        task = {"data": data, "currency": currency, "taxes": list(taxes)}
        if facts:
            task.update({"facts": True, "factsFrom": facts_from})
        result = self.call(task)
        if not isinstance(result, dict):
            raise ServiceError("No result")
        return result

    def _connect(self, call_deadline: _Deadline) -> socket.socket:
        path = socket_path(self.service_name)
        deadline = time.monotonic() + _CONNECT_PATIENCE
        if call_deadline.at is not None:
            deadline = min(deadline, call_deadline.at)
        pause, started = 0.005, False
        while True:
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                call_deadline.arm(sock)
                sock.connect(path)
                return sock
            except socket.timeout:
                sock.close()
                raise call_deadline.expired() from None
            except OSError as e:
                sock.close()
                if e.errno in (errno.ENOENT, errno.ECONNREFUSED):
                    if not started:
                        self._start(path)
                        started = True
                elif e.errno != errno.EAGAIN:
                    raise ServiceNotReachable(f"Could not connect to {path}: {e.strerror}")
                if time.monotonic() + pause > deadline:
                    if call_deadline.at is not None and time.monotonic() + pause > call_deadline.at:
                        raise call_deadline.expired() from None
                    raise ServiceNotReachable(
                        f"The service did not answer at {path}: {e.strerror}") from None
            time.sleep(pause)
            pause = min(pause * 2, 0.2)

    def _start(self, socket_file: str) -> None:
        executable = self.executable or find_service_executable(self.service_name)
        if not executable:
            raise ServiceNotReachable(f"Could not find the service executable {self.service_name}")
        log = os.path.join(os.path.dirname(socket_file), self.service_name + ".log")
        try:
            fd = os.open(log, os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_NOFOLLOW, 0o600)
        except OSError:
            fd = subprocess.DEVNULL
        env = {k: v for k, v in os.environ.items()
               if k not in ("LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES")}
        try:
            self.started = subprocess.Popen(
                [self.service_name], executable=executable, stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=fd, env=env, start_new_session=True)
        except OSError as e:
            raise ServiceNotReachable(f"Could not start {executable}: {e.strerror}") from None
        finally:
            if fd != subprocess.DEVNULL:
                os.close(fd)


def analyze(path: str | os.PathLike, currency: str = "",
            taxes: Iterable[int | float | decimal.Decimal] = (), *,
            executable: str | None = None,
            service_name: str = DEFAULT_SERVICE_NAME,
            timeout: float | None = DEFAULT_TIMEOUT,
            facts: bool = False, facts_from: str = "best") -> dict:
    """The service's analysis of the PDF at `path`.

    currency: the default currency code when the document names none;
    taxes: the tax rates in percent that apply; facts: also the "facts"
    answer (docs/facts.md: money as Decimal, dates as "YYYY-MM-DD"), from
    facts_from "best", "text" or "e-invoice"; with facts, `path` may also be
    e-invoice XML. Returns the result dict
    ("gross", "net", "tax" as Decimal or None, "currency", "date" as a UTC
    datetime or None, "pages" as one str per page, the found elements as
    dicts with "$class", ...). Raises ServiceError with the service's message
    (e.g. "Could not open document"), ServiceNotReachable when the service
    could not be reached or did not answer within `timeout` seconds.
    """
    return ServiceClient(service_name, executable, timeout).analyze(
        path, currency, taxes, facts, facts_from)
