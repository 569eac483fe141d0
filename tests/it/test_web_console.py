"""The web console in Debian's chromium (headless): the page and api.cgi served by Debian's mini_httpd in the
sandbox, on the demo device; screenshots of each section go to BUILD/web-screenshots."""
import base64
import json
import os
import re
import time

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as EC
from selenium.webdriver.support.ui import WebDriverWait

from hxdemo import LEASES, Demo
from hxsim import REPO
from hxweb import Web
from helpers import wait_for

SHOTS = os.path.join(os.environ.get("HX_BUILD") or os.path.join(REPO, "build"), "web-screenshots")
INIT_LOG = "/var/log/hxsim/init.log"


@pytest.fixture(scope="module")
def web(sandbox, daemon):
    with Demo(sandbox), Web(sandbox, port=0) as w:
        yield w


@pytest.fixture(scope="module")
def browser(web):
    options = webdriver.ChromeOptions()
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1100,1500", "--lang=en-US"):
        options.add_argument(arg)
    options.binary_location = "/usr/bin/chromium"
    options.set_capability("goog:loggingPrefs", {"performance": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.execute_cdp_cmd("Network.enable", {})
    driver.execute_cdp_cmd("Network.setCacheDisabled", {"cacheDisabled": True})  # each load asks the server
    os.makedirs(SHOTS, exist_ok=True)
    yield driver
    driver.quit()


def open_as(browser, web, login):
    """The page with this "name:password" sent as the Basic login (None: none): the page's HTTP status and
    the login it asks for."""
    headers = {"Authorization": "Basic " + base64.b64encode(login.encode()).decode()} if login else {}
    browser.execute_cdp_cmd("Network.setExtraHTTPHeaders", {"headers": headers})
    browser.get_log("performance")
    browser.get(web.url)
    events = [json.loads(e["message"])["message"] for e in browser.get_log("performance")]
    return [(r["status"], r["headers"].get("WWW-Authenticate")) for e in events
            if e["method"] == "Network.responseReceived" and (r := e["params"]["response"])["url"] == web.url]


def text_of(browser, element_id, expected, timeout=30):
    WebDriverWait(browser, timeout).until(EC.text_to_be_present_in_element((By.ID, element_id), expected))
    return browser.find_element(By.ID, element_id).text


def shot(browser, section):
    browser.find_element(By.ID, section).screenshot(os.path.join(SHOTS, f"{section}.png"))


def ready(browser, element_id):
    """The control, once enabled (a form's button is, once the form holds the stored values)."""
    return WebDriverWait(browser, 30).until(EC.element_to_be_clickable((By.ID, element_id)))


def click(browser, element_id):
    element = ready(browser, element_id)
    browser.execute_script("arguments[0].scrollIntoView({block: 'center'})", element)
    element.click()


def fill(browser, element_id, text):
    field = browser.find_element(By.ID, element_id)
    field.clear()
    field.send_keys(text)


def test_page_is_small_and_self_contained():
    files = [os.path.join(REPO, "web", name) for name in os.listdir(os.path.join(REPO, "web"))]
    assert sum(map(os.path.getsize, files)) <= 64 * 1024
    assert [f for f in files if re.search(rb"(src|href)=\S*//|url\(\S*//|fetch\(\S*//", open(f, "rb").read())] == []


def test_login_is_asked_and_checked(sandbox, web, browser):
    assert open_as(browser, web, None) == [(200, None)]
    ready(browser, "login-apply")
    fill(browser, "login-name", "admin")
    fill(browser, "login-pass", "s3cret")
    click(browser, "login-apply")
    wait_for(lambda: "\npassport=admin:" in sandbox.read_text("/etc/mini_httpd.conf"))
    # the restart usually ends the connection carrying the answer too: either way the page says what comes
    section = browser.find_element(By.ID, "system")
    WebDriverWait(browser, 30).until(lambda _: re.search("log in with the new name|asks for the new login", section.text))
    asked = [(401, 'Basic realm="."')]
    assert [open_as(browser, web, login) for login in (None, "admin:wrong", "admin:s3cret")] == [asked, asked, [(200, None)]]


HOSTILE = "<img/src=x/onerror=window.pwned=1>"  # a client names itself: text, never markup


def test_status_shows_the_stores_and_the_device(sandbox, web, browser):
    sandbox.store_set("rtconf", "rootfs.ver", b"7.3.1-web\nbuilt for the browser test\0")
    leases = sandbox.read_text(LEASES)
    sandbox.write(LEASES, leases + f"{int(time.time()) + 3600} 02:00:00:00:00:66 192.168.100.66 {HOSTILE} *\n")
    open_as(browser, web, "admin:s3cret")
    assert "7.3.1-web" in text_of(browser, "st-fw", "7.3.1-web")
    assert all(name in text_of(browser, "st-clients", name) for name in ("annas-iphone", "toms-laptop", HOSTILE))
    assert browser.execute_script("return [document.querySelectorAll('#st-clients img').length, window.pwned]") == [0, None]
    sandbox.write(LEASES, leases)  # gone at the next refresh, without a reload
    WebDriverWait(browser, 30).until(lambda _: HOSTILE not in browser.find_element(By.ID, "st-clients").text)
    assert "USB_A1" in text_of(browser, "st-disks", "USB_A1")
    browser.save_screenshot(os.path.join(SHOTS, "page.png"))
    shot(browser, "status")


def test_wifi_name_is_stored_and_applied(sandbox, web, browser):
    sandbox.clear_cmdlog()
    ready(browser, "wifi-apply")
    fill(browser, "wifi-ssid", "NewName")
    click(browser, "wifi-apply")
    assert "reconnect" in text_of(browser, "wifi-ok", "reconnect")
    assert sandbox.store_get("sysconf", "wl_ssid") == b'"NewName"\0'
    assert 'SSID="NewName"\n' in sandbox.read_text("/mnt/rwdata/uaputl.conf")
    ap = [c[1:] for c in sandbox.cmdlog() if c[0] == "/sbin/uaputl.exe" and c[1] != "sta_list"]  # the poll lists stations
    assert ap[-1] == ["bss_start"] and ["sys_config", "/mnt/rwdata/uaputl.conf"] in ap
    shot(browser, "wifi")


def test_refused_write_shows_the_daemons_text(sandbox, web, browser):
    held = sandbox.hold_store("sysconf", "r")
    try:
        click(browser, "wifi-apply")
        error = browser.find_element(By.CSS_SELECTOR, "#wifi .error")
        WebDriverWait(browser, 30).until(lambda _: "internal error" in error.text)
    finally:
        sandbox.release_store(held)


def test_join_reaches_connected(sandbox, web, browser):
    click(browser, "scan")
    pick = WebDriverWait(browser, 60).until(EC.element_to_be_clickable(
        (By.XPATH, "//ul[@id='hotspots']//button[contains(@class, 'pick') and contains(., 'Harbour Cafe')]")))
    pick.click()
    click(browser, "join")
    assert "Connected" in text_of(browser, "sta-state", "Connected", timeout=90)
    shot(browser, "internet")


def test_storage_and_backup(sandbox, web, browser):
    click(browser, "backup-start")
    assert "success" in text_of(browser, "backup-log", "success", timeout=60)
    shot(browser, "storage")


def test_reboot_asks_first(sandbox, web, browser):
    sandbox.write(INIT_LOG, "")
    answers = []
    for accept in (False, True):
        click(browser, "reboot")
        alert = WebDriverWait(browser, 10).until(EC.alert_is_present())
        answers.append(alert.text)
        alert.accept() if accept else alert.dismiss()
        if not accept:
            assert sandbox.read_text(INIT_LOG) == ""
    assert wait_for(lambda: sandbox.read_text(INIT_LOG) == "kill 1\n", 60)
    assert all("Reboot" in a for a in answers)
    shot(browser, "system")
