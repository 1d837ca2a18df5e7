"""The Python package over the C interface, against an HTTP server on 127.0.0.1. One library per
process: the session's fixture configures it once and shuts it down at the end."""
import http.server
import json
import threading

import pytest

import velmora

AID = "0123456789ABCDEF-0123456789ABCDEF"
HOSTS = ("collect.py.example", "py.tt.vantor.example", "audience.py.example")


class Server(http.server.ThreadingHTTPServer):
    def __init__(self):
        super().__init__(("127.0.0.1", 0), Handler)
        self.hits = []


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        body = b""
        if self.path.startswith("/b/ss/"):
            self.server.hits.append(self.path)
        elif self.path.startswith("/id"):
            body = json.dumps({"id": AID}).encode()
        elif self.path.startswith("/m2/py/"):
            body = b"offer text"
        elif self.path.startswith("/event"):
            body = json.dumps({"uuid": "u1", "stuff": [{"cn": "interest", "cv": "coffee"}]}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *arguments):
        pass


@pytest.fixture(scope="session")
def server(tmp_path_factory):
    server = Server()
    threading.Thread(target=server.serve_forever, daemon=True).start()
    package = tmp_path_factory.mktemp("package")
    (package / "VelmoraConfig.json").write_text(json.dumps({
        "analytics": {"rsids": "py", "server": HOSTS[0], "ssl": False, "offlineEnabled": True,
                      "privacyDefault": "optedin"},
        "vantor": {"clientCode": "py", "timeout": 5}, "cohorta": {"server": HOSTS[2]}}))
    server.internet_fails = False
    server.log_lines = []

    def internet():
        if server.internet_fails:
            raise RuntimeError("no idea")
        return True
    assert velmora.configure(package_directory=package, local_directory=tmp_path_factory.mktemp("local"),
                             connect_to=["%s:80:127.0.0.1:%d" % (host, server.server_port) for host in HOSTS],
                             internet=internet, log=lambda level, line: server.log_lines.append((level, line)))
    yield server
    assert velmora.shutdown(timeout=5)
    server.shutdown()


def test_context_data_goes_out_as_its_wire_text_and_the_counters_follow(server):
    velmora.track_state("Home", {"section": "front page", "items": 3, "ratio": 0.1, "member": True, "big": 2**70})
    velmora.track_action("Buy", {"price": 12.5})
    assert velmora.flush(timeout=10)
    home = next(hit for hit in server.hits if "pageName=Home" in hit)
    for text in ("section=front%20page", "items=3", "ratio=0.1", "member=true", "big=1180591620717411303424"):
        assert "&" + text + "&" in home
    assert any("pev2=AMACTION%3ABuy" in hit and "&price=12.5&" in hit for hit in server.hits)
    stats = velmora.stats()
    assert (stats.delivered, stats.waiting, stats.last_status) == (len(server.hits), 0, 200)
    assert stats.last_delivered is not None


def test_asynchronous_results_are_futures(server):
    velmora.track_timed_action_start("Checkout", {"step": "cart"})
    assert velmora.tracking_timed_action_exists("Checkout").result(10) is True
    assert velmora.tracking_timed_action_exists("Nothing").result(10) is False
    assert velmora.get_privacy_status().result(10) is velmora.Privacy.OPT_IN
    assert velmora.get_tracking_identifier().result(10) == AID
    assert velmora.vantor_load_request("box", "default", {"category": "cups"}).result(10) == "offer text"
    assert velmora.cohorta_submit_signal({"interest": "coffee"}).result(10) == {"interest": "coffee"}
    assert velmora.cohorta_get_visitor_profile() == {"interest": "coffee"}


def test_media_settings_and_identifiers_go_through(server):
    for name, offsets in (("Clip", False), ("Cut", True)):  # each segment flag on its own
        clip = velmora.media_settings_with(name, 30.0, "player", name)
        clip.channel, clip.milestones, clip.offset_milestones = "news", "50", "10"
        clip.segment_by_milestones, clip.segment_by_offset_milestones = not offsets, offsets
        velmora.media_open(clip)
        velmora.media_play(name, 0)
        velmora.media_close(name)
    velmora.set_user_identifier("user-7")
    assert velmora.flush(timeout=10)
    for segment in ("M%3A0-50", "O%3A0-10"):
        assert any("&amediachannel=news&" in hit and f"&amediasegment={segment}&" in hit for hit in server.hits)
    assert velmora.get_user_identifier() == "user-7"


@pytest.mark.parametrize("call", [
    lambda: velmora.track_state("Home", {"list": [1]}),
    lambda: velmora.track_action("Buy", ["not", "a", "dict"]),
    lambda: velmora.track_state(7),
    lambda: velmora.cohorta_submit_signal({3: "key not a str"}),
])
def test_a_wrong_type_raises_before_the_library_sees_it(server, call):
    before = velmora.stats().queued
    with pytest.raises(TypeError):
        call()
    assert velmora.get_queue_size() == 0 and velmora.stats().queued == before


def test_an_exception_in_a_callback_is_logged_and_never_reaches_the_library(server, caplog):
    server.internet_fails = True
    velmora.set_debug_logging(True)
    try:
        velmora.track_state("Offline?")
        assert velmora.flush(timeout=10)  # the failing check counts as online
    finally:
        server.internet_fails = False
        velmora.set_debug_logging(False)
    assert "the internet callback raised" in caplog.text and "RuntimeError: no idea" in caplog.text
    assert any("pageName=Offline%3F" in hit for hit in server.hits)
    assert any(level is velmora.LogLevel.DEBUG and line.startswith("Velmora Debug:Analytics - Sending hit (http://")
               for level, line in server.log_lines)
