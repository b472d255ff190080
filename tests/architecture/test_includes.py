#!/usr/bin/env python3
"""The check itself finds what it is for."""
import pathlib
import unittest

from includes import faults_of

TOP = pathlib.Path(__file__).resolve().parents[2]


class IncludesTest(unittest.TestCase):
    def check(self, path, include):
        return list(faults_of(path, include, TOP))

    def test_lets_good_includes_pass(self):
        for path, include in [
            ("kestrova/session/Meeting.cpp", "kestrova/tracing/Trace.h"),
            ("kestrova/media/Publishing.cpp", "kestrova/signalling/Response.h"),
            ("kestrova/tracing/Telemetry.cpp", "opentelemetry/sdk/trace/tracer.h"),
            ("kestrova/platform/linux/http/CurlLoop.cpp", "curl/curl.h"),
            ("apps/meet/Main.cpp", "kestrova/session/Kestrova.h"),
            ("kestrova/platform/Queue.cpp", "boost/asio/post.hpp"),
        ]:
            self.assertEqual(self.check(path, include), [], (path, include))

    def test_finds_bad_ones(self):
        for path, include in [
            ("kestrova/signalling/RoomClient.cpp", "kestrova/session/Meeting.h"),
            ("kestrova/tracing/Trace.h", "kestrova/media/AppData.h"),
            ("kestrova/model/Peer.h", "kestrova/signalling/Events.h"),
            ("kestrova/platform/Queue.h", "kestrova/tracing/Trace.h"),
            ("kestrova/session/Meeting.cpp", "kestrova/platform/linux/webrtc/Engine.h"),
            ("kestrova/session/Meeting.h", "api/media_stream_interface.h"),
            ("kestrova/realtime/Socket.cpp", "boost/beast/websocket.hpp"),
            ("kestrova/tracing/Telemetry.h", "opentelemetry/sdk/trace/tracer.h"),
            ("examples/bot.cpp", "kestrova/signalling/RoomClient.h"),
            ("examples/bot.cpp", "kestrova/platform/linux/webrtc/Engine.h"),
        ]:
            self.assertEqual(len(self.check(path, include)), 1, (path, include))


if __name__ == "__main__":
    unittest.main()
