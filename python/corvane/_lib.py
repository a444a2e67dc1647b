"""Loading libCorvane and a middleware with ctypes, and the C declarations
the package uses.

Where the libraries are looked for, first hit wins:
  1. $CORVANE_LIBDIR (directories separated by ':'),
  2. the directories _paths.py names: the build tree's, or, once installed,
     the library directory relative to this package,
  3. the dynamic loader's own search (LD_LIBRARY_PATH, ld.so.cache).

libCorvane imports its middleware's functions (quib*, ranq*) without naming
a library for them, so a middleware is loaded first, with RTLD_GLOBAL: the
D-Bus one (libcorvane_dbus.so.1, which the bus mocks need), else the
in-process stand-in (libcorvane_platform.so.1), which is enough to encode and
decode.
"""

import ctypes
import os

from . import _paths

CORVANE = "libCorvane.so.1"
DBUS = "libcorvane_dbus.so.1"
STAND_IN = "libcorvane_platform.so.1"


class Field(ctypes.Structure):
    pass


class Schema(ctypes.Structure):
    pass


Field._fields_ = [
    ("name", ctypes.c_char_p),
    ("record", ctypes.POINTER(Schema)),
    ("offset", ctypes.c_uint32),
    ("capacity", ctypes.c_uint16),
    ("kind", ctypes.c_uint8),
    ("reserved", ctypes.c_uint8),
]
Schema._fields_ = [
    ("name", ctypes.c_char_p),
    ("fields", ctypes.POINTER(Field)),
    ("size", ctypes.c_uint32),
    ("fieldCount", ctypes.c_uint16),
    ("flags", ctypes.c_uint16),
]


class MessageInfo(ctypes.Structure):
    _fields_ = [
        ("name", ctypes.c_char_p),
        ("payload", ctypes.POINTER(Schema)),
        ("magic", ctypes.c_uint32),
        ("key", ctypes.c_uint32),
        ("bodySize", ctypes.c_uint32),
        ("envelope", ctypes.c_uint32),
        ("index", ctypes.c_uint16),
        ("intf", ctypes.c_uint8),
        ("flags", ctypes.c_uint8),
    ]


# Values of corvane/schema.h, corvane/messages.h and corvane/base.h.
FIELD_U32, FIELD_TEXT, FIELD_RECORD, FIELD_ARRAY, FIELD_FIXED_ARRAY = range(5)
FIRST_TAG = 3
INTF_CMD, INTF_NTFY = 0, 1
MSG_NEED_UPDATE, MSG_RECORD_PAYLOAD = 0x1, 0x2
BODY_REQUEST = 0
BODY_PAYLOAD_OFFSET = 8
SELECT_BOTH = 0

HANDLER = ctypes.CFUNCTYPE(ctypes.c_uint32, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p)
JOB = ctypes.CFUNCTYPE(None, ctypes.c_void_p)


def _resolved(dirs):
    here = os.path.dirname(os.path.abspath(__file__))
    return [d if os.path.isabs(d) else os.path.normpath(os.path.join(here, d)) for d in dirs]


def search_dirs():
    """Where libCorvane and the middlewares are looked for, in order."""
    env = [d for d in os.environ.get("CORVANE_LIBDIR", "").split(":") if d]
    return env + _resolved(_paths.LIBDIRS)


def search_bindirs():
    """Where the corvane program that goes with the package may be."""
    return _resolved(_paths.BINDIRS)


def _find(soname):
    for d in search_dirs():
        path = os.path.join(d, soname)
        if os.path.exists(path):
            return path
    return soname  # the dynamic loader's own search


class Libraries:
    """libCorvane (`core`), the middleware (`mw`) and the C library (`libc`)."""

    def __init__(self):
        self.core_path = _find(CORVANE)
        tried = []
        self.mw = None
        self.bus = False
        for soname, bus in ((DBUS, True), (STAND_IN, False)):
            path = _find(soname)
            try:
                self.mw = ctypes.CDLL(path, mode=ctypes.RTLD_GLOBAL)
                self.mw_path, self.bus = path, bus
                break
            except OSError as e:
                tried.append(str(e))
        if self.mw is None:
            raise ImportError(
                "corvane: cannot load a middleware for libCorvane (" + "; ".join(tried) +
                "); set CORVANE_LIBDIR to the directory of libCorvane.so.1, "
                "libcorvane_dbus.so.1 and libcorvane_platform.so.1")
        try:
            self.core = ctypes.CDLL(self.core_path, mode=ctypes.RTLD_GLOBAL)
        except OSError as e:
            raise ImportError("corvane: cannot load libCorvane: %s; set CORVANE_LIBDIR to its "
                              "directory" % e) from None
        self.libc = ctypes.CDLL(None)
        self._declare()

    def _declare(self):
        c, u32, vp = self.core, ctypes.c_uint32, ctypes.c_void_p
        c.corVane_recordCount.restype = u32
        c.corVane_recordCount.argtypes = []
        c.corVane_recordSchemaAt.restype = ctypes.POINTER(Schema)
        c.corVane_recordSchemaAt.argtypes = [u32]
        c.corVane_messageInfo.restype = ctypes.POINTER(MessageInfo)
        c.corVane_messageInfo.argtypes = [u32, u32]
        c.corVane_unserializeBody_bounded.restype = u32
        c.corVane_unserializeBody_bounded.argtypes = [
            ctypes.POINTER(MessageInfo), u32, ctypes.c_char_p, ctypes.c_size_t,
            ctypes.POINTER(vp), ctypes.POINTER(u32)]
        c.corVane_record_unserialize_bounded.restype = u32
        c.corVane_record_unserialize_bounded.argtypes = [
            ctypes.POINTER(Schema), vp, ctypes.POINTER(vp), vp]
        c.corvane_initialize.restype = u32
        c.corvane_initialize.argtypes = []
        c.corVane_regUser_msgMngt.restype = u32
        c.corVane_regUser_msgMngt.argtypes = [vp, vp, vp, u32]
        c.corVane_getNtfyIntfNum.restype = ctypes.c_uint16
        c.corVane_getNtfyIntfNum.argtypes = []
        self.libc.free.argtypes = [vp]
        self.libc.free.restype = None
        self.libc.openlog.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_int]
        self.libc.openlog.restype = None
        self.libc.closelog.argtypes = []
        self.libc.closelog.restype = None
        if self.bus:
            m = self.mw
            m.quibDbus_newUser.restype = vp
            m.quibDbus_newUser.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(u32)]
            m.quibDbus_freeUser.restype = None
            m.quibDbus_freeUser.argtypes = [vp]
            m.quibDbus_setTimeout.restype = None
            m.quibDbus_setTimeout.argtypes = [u32]
            m.quibDbus_lastStatus.restype = u32
            m.quibDbus_lastStatus.argtypes = [vp]
            m.quibDbus_strerror.restype = ctypes.c_char_p
            m.quibDbus_strerror.argtypes = [u32]
            m.quibDbus_needsUpdate.restype = ctypes.c_int
            m.quibDbus_needsUpdate.argtypes = [vp, ctypes.c_uint16, ctypes.c_uint16]
            m.quibDbus_userPid.restype = ctypes.c_int32
            m.quibDbus_userPid.argtypes = [vp, ctypes.c_char_p]
            m.quibDbus_ctxSender.restype = ctypes.c_int
            m.quibDbus_ctxSender.argtypes = [vp, ctypes.c_char_p, ctypes.c_size_t,
                                             ctypes.POINTER(ctypes.c_int32)]
            m.quibCore_sendMsgRes.restype = u32
            m.quibCore_sendMsgRes.argtypes = [vp, vp, u32, u32]
            m.ranqDbus_runFor.restype = ctypes.c_int
            m.ranqDbus_runFor.argtypes = [u32]

    def function(self, name, restype, argtypes):
        """An exported function of libCorvane by name (the per-message ones)."""
        f = getattr(self.core, name)
        f.restype = restype
        f.argtypes = argtypes
        return f


_libs = None


def libs():
    global _libs
    if _libs is None:
        _libs = Libraries()
    return _libs
