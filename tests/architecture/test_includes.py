#!/usr/bin/env python3
"""The check itself finds what it is for."""
import pathlib
import tempfile
import unittest

from includes import costs_of_start, faults_of

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
            ("apps/meet/Main.cpp", "kestrova/kestrova.h"),
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

    def test_finds_what_makes_the_first_header_dear(self):
        with tempfile.TemporaryDirectory() as folder:
            top = pathlib.Path(folder)
            for header, text in [
                ("kestrova.h", "#include <kestrova/session/Meeting.h>\n#include <vector>\n"),
                ("session/Meeting.h", "#include <mutex>\n#include <kestrova/signalling/Peer.h>\n"),
                ("signalling/Peer.h", "#include <boost/json/object.hpp>\n"),
                ("session/Inner.h", "#include <thread>\n"),
            ]:
                path = top / "kestrova" / header
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            found = [": ".join(fault.split(": ")[:2]) for fault in costs_of_start(top)]
        self.assertEqual(found, ["kestrova/session/Meeting.h: mutex",
                                 "kestrova/session/Meeting.h: kestrova/signalling/Peer.h",
                                 "kestrova/signalling/Peer.h: boost/json/object.hpp"])


if __name__ == "__main__":
    unittest.main()
