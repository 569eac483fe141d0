"""/opt/web/api.cgi, hxctl as the web page's bridge: run as the web server runs it, then behind Debian's mini_httpd."""
import base64
import http.client
import json

import pytest

from hxweb import Web, install_page
from helpers import wait_for

GET_SSID = b'{"method":"pref-get","arguments":{"confs":["wl_ssid"]}}'
SSID = b'{"arguments":{"confs":{"wl_ssid":"HX-Travel"},"infos":{}},"result":"success"}\n'
POST = {"REQUEST_METHOD": "POST", "CONTENT_TYPE": "application/json", "HTTP_HOST": "192.168.100.1"}


def answer(status, reason=None, body=None):
    """The CGI answer: the reply as it is, a refusal as {"result": reason}."""
    body = body or json.dumps({"result": reason}, separators=(",", ":")).encode() + b"\n"
    head = f"Status: {status[0]} {status[1]}\r\n" if status else ""
    head += "Allow: POST\r\n" if status and status[0] == 405 else ""
    return f"{head}Content-Type: application/json\r\nCache-Control: no-store\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body


def cgi(sb, env, body=b""):
    r = sb.run(["/opt/web/api.cgi"], input=body, env=env)
    return r.returncode, r.stdout, r.stderr


@pytest.fixture(scope="module")
def bridge(sandbox, daemon):
    install_page(sandbox)
    yield sandbox


BAD = (400, "Bad Request")
@pytest.mark.parametrize("env, body, out", [
    ({}, GET_SSID, answer(None, body=SSID)),
    ({"CONTENT_TYPE": "application/json; charset=UTF-8"}, GET_SSID.ljust(4096), answer(None, body=SSID)),
    ({"REQUEST_METHOD": "GET"}, b"", answer((405, "Method Not Allowed"), "only POST is accepted")),
    ({"HTTP_HOST": "router.evil.example:80"}, GET_SSID, answer((403, "Forbidden"), "open the page by the device's address or name")),
    ({"CONTENT_TYPE": "text/plain"}, GET_SSID, answer((415, "Unsupported Media Type"), "the request must be application/json")),
    ({"CONTENT_TYPE": None}, GET_SSID, answer((415, "Unsupported Media Type"), "the request must be application/json")),
    ({"CONTENT_LENGTH": None}, GET_SSID, answer((411, "Length Required"), "the request has no length")),
    ({}, GET_SSID.ljust(4097), answer((413, "Payload Too Large"), "the request is over 4096 bytes")),
    ({"CONTENT_LENGTH": "100"}, GET_SSID, answer(BAD, "the request is cut short")),
    ({}, b'{"method":"pref-get"', answer(BAD, "the request is not a JSON object")),
    ({}, b'{"method":"pref-get"}\0', answer(BAD, "the request is not a JSON object")),
    ({}, b'{"method":"upgrade","arguments":{}}', answer(BAD, "the method must be pref-get, pref-set or revalidate")),
], ids=["reply", "4096", "405", "403", "415", "415-none", "411", "413", "cut", "not-json", "nul", "method"])
def test_answers(bridge, env, body, out):
    env = {k: v for k, v in {**POST, "CONTENT_LENGTH": str(len(body)), **env}.items() if v is not None}
    assert cgi(bridge, env, body) == (0, out, b"")


def request(url, body=GET_SSID, login=None):
    c = http.client.HTTPConnection(url.split("/")[2], timeout=30)
    headers = {"Content-Type": "application/json"}
    if login:
        headers["Authorization"] = "Basic " + base64.b64encode(login.encode()).decode()
    c.request("POST", "/api.cgi", body, headers)
    r = c.getresponse()
    return r.status, r.read()


def test_behind_mini_httpd(bridge):
    with Web(bridge, port=0) as web:
        assert request(web.url) == (200, SSID)
        bridge.run(["hxctl", "set", 'httpd_auth_name="admin"', 'httpd_auth_passwd="s3cret"'], check=True)
        bridge.run(["hxctl", "revalidate", "httpd", "restart"], check=True)
        assert [request(web.url, login=who)[0] for who in (None, "admin:wrong", "admin:s3cret")] == [401, 401, 200]
        assert bridge.read_text("/opt/web/.htpasswd") == bridge.read_text("/etc/mini_httpd.conf").split("passport=")[1]


def test_without_daemon(bridge, daemon):
    daemon.stop()
    env = {**POST, "CONTENT_LENGTH": str(len(GET_SSID))}
    assert cgi(bridge, env, GET_SSID) == (0, answer((502, "Bad Gateway"), "cannot reach hxsrvd"), b"")
    closer = bridge.popen(["/usr/bin/python3", "-c", "import os, socket; s = socket.socket(socket.AF_UNIX); s.bind('/var/tmp/s');"
                           "s.listen(); os.rename('/var/tmp/s', '/var/tmp/socket'); c = s.accept()[0]; c.recv(4096); c.close()"])
    wait_for(lambda: bridge.exists("/var/tmp/socket"))
    assert cgi(bridge, env, GET_SSID) == (0, answer((502, "Bad Gateway"), "no complete reply from hxsrvd"), b"")
    closer.wait(10)
