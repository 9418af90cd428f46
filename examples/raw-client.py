#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Lists the models without the library: by the desktop's wire format alone, byte for byte."""
import os
import secrets
import socket
import struct

AGENT, PORT = "com.velmora.svcmgr", "SvcMgrAppPort"
MAIN, CALLBACK = 0, 1


def int32(number):
    return struct.pack("<i", number)


def text(string):
    content = string.encode() + b"\0"
    return int32(len(content)) + content


class Message:
    """A message that was received, read from its front."""

    def __init__(self, stream):
        size = struct.unpack("<i", stream.recv(4, socket.MSG_WAITALL))[0]
        self.content = stream.recv(size, socket.MSG_WAITALL)

    def take(self, size):
        taken, self.content = self.content[:size], self.content[size:]
        return taken

    def int32(self):
        return struct.unpack("<i", self.take(4))[0]

    def bool(self):
        return self.take(1) != b"\0"

    def text(self):
        return self.take(self.int32())[:-1].decode()


def send(stream, content):
    stream.sendall(int32(len(content)) + content)


def open_stream(kind, token):
    stream = socket.socket(socket.AF_UNIX)
    stream.connect(f"{os.environ['VELMORA_RUNTIME_DIR']}/{AGENT}:{PORT}")
    sender = os.environ["VELMORA_APP_ID"]
    send(stream, b"HELO" + int32(1) + int32(kind) + text(token) + text(sender) + text(AGENT) + text(PORT))
    return stream


def connect():
    token = secrets.token_hex(16)
    main, callback = open_stream(MAIN, token), open_stream(CALLBACK, token)
    verdict = Message(main)
    assert verdict.take(4) == b"VDCT"
    if verdict.int32() != 0:
        raise PermissionError("the agent refused the connection")
    return main, callback


def api_level(main):
    send(main, int32(2))  # get_agent_api_level
    reply = Message(main)
    assert reply.int32() == 0  # a reply
    return reply.int32()


def models(main, callback):
    delegate = int32(1) + int32(0) + b"\0"  # ID, sequence number, once
    app = text(os.environ["VELMORA_APP_ID"]) + text(os.environ["VELMORA_APP_VERSION"])
    send(main, int32(5) + delegate + app)  # GetUsableModelList
    answer = Message(callback)
    assert answer.int32() == 1  # a delegate message
    assert (answer.int32(), answer.int32(), answer.bool()) == (1, 0, False)
    result = answer.int32()
    listed = [[answer.text() for _ in range(4)] for _ in range(answer.int32())]
    assert answer.int32() == len(listed) and answer.content == b""
    return result, listed


def main_program():
    main, callback = connect()
    print("API level", api_level(main))
    result, listed = models(main, callback)
    print("result", result)
    for identifier, version, title, _ in listed:
        print(f"{identifier} {version} ({title})")


if __name__ == "__main__":
    main_program()
