"""This machine's facts, worked out independently of the extension."""
import ctypes
import os
import re
import socket


def system_name():
    return socket.gethostname()


def release():
    return os.uname().release


def canonical_name(name):
    try:
        return socket.getaddrinfo(name, None, flags=socket.AI_CANONNAME)[0][3]
    except OSError:
        return name


def _docker_name_in_cgroup():
    """(found, name) by the lines of the first process's control groups."""
    found, name = False, ""
    try:
        with open("/proc/1/cgroup", encoding="utf-8") as lines:
            for line in lines:
                parts = line.rstrip("\n").split("/")
                for index, part in enumerate(parts):
                    if part == "docker" and not name:
                        found = True
                        name = parts[index + 1] if index + 1 < len(parts) else ""
    except OSError:
        pass
    return found, name


def _docker_name_in_mounts():
    found, name = False, ""
    try:
        with open("/proc/1/mountinfo", encoding="utf-8") as lines:
            for line in lines:
                if "/containers/" in line and "/hostname" in line:
                    found = True
                    rest = line.split("/containers/", 1)[1]
                    name = re.match(r"\s*(\S{0,64})", rest).group(1)
    except OSError:
        pass
    return found, name


def type_and_name():
    """The host type and host name that a process without container variables reports."""
    for look in (_docker_name_in_cgroup, _docker_name_in_mounts):
        found, name = look()
        if found:
            return "DOCKER", name or system_name()
    return "LINUX", system_name()


class _SocketAddress(ctypes.Structure):
    _fields_ = [("family", ctypes.c_uint16), ("data", ctypes.c_ubyte * 26)]


class _InterfaceAddress(ctypes.Structure):
    pass


_InterfaceAddress._fields_ = [
    ("next", ctypes.POINTER(_InterfaceAddress)), ("name", ctypes.c_char_p),
    ("flags", ctypes.c_uint), ("address", ctypes.POINTER(_SocketAddress))]


def addresses():
    """All IPv4 and IPv6 addresses of all interfaces, in the order the system lists them."""
    library = ctypes.CDLL(None, use_errno=True)
    first = ctypes.POINTER(_InterfaceAddress)()
    if library.getifaddrs(ctypes.byref(first)) != 0:
        raise OSError(ctypes.get_errno(), "getifaddrs")
    found, entry = [], first
    while entry:
        if entry.contents.address:
            socket_address = entry.contents.address.contents
            if socket_address.family == socket.AF_INET:
                found.append(socket.inet_ntop(socket.AF_INET, bytes(socket_address.data[2:6])))
            elif socket_address.family == socket.AF_INET6:
                found.append(socket.inet_ntop(socket.AF_INET6, bytes(socket_address.data[6:22])))
        entry = entry.contents.next
    library.freeifaddrs(first)
    return found
