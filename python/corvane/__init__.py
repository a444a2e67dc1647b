"""libCorvane's messages and records from Python, through the library itself.

    import corvane
    body = corvane.encode("SetLineCallState", {"value1": 1, "value2": 2})
    corvane.decode(body)            # ("SetLineCallState", {"value1": 1, "value2": 2, "value3": 0})
    corvane.messages()              # the 19 commands and 30 notifications
    corvane.schema("lineCallState") # fields, kinds, capacities

The package loads libCorvane.so.1 and a middleware with ctypes (see _lib.py
for where it looks), and needs nothing but the Python standard library;
corvane.testing adds pytest fixtures with mock peers on a private bus.
"""

from ._codec import (DecodeError, FieldInfo, Message, PayloadError, RecordSchema, decode,
                     encode, message, messages, schema)

__version__ = "1.0.0"
__all__ = ["encode", "decode", "messages", "message", "schema", "Message", "RecordSchema",
           "FieldInfo", "PayloadError", "DecodeError"]
