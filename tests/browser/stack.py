"""Real processes on loopback for the console's browser tests and benchmark:
a mosquitto broker, lumbra-platform, a publisher playing a gateway (through
mosquitto_pub) and headless Chromium driven by chromedriver. Everything runs
in a temp dir on free ports; only processes started here are stopped, by pid.
"""
import json
import os
import pwd
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SKIP = 77  # CTest's SKIP_RETURN_CODE for these tests
CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
MOSQUITTO = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
VERSION = "3.0.0"


def skip_without_browser():
    """Exits with SKIP, saying why, where Chromium or Selenium is missing."""
    missing = [p for p in (CHROMIUM, CHROMEDRIVER) if not os.access(p, os.X_OK)]
    try:
        import selenium  # noqa: F401  (only whether it is there)
    except ImportError:
        missing.append("python3-selenium")
    if missing:
        print("SKIP: no headless browser here (missing %s; scripts/install-deps installs "
              "chromium, chromium-driver and python3-selenium)" % ", ".join(missing))
        sys.exit(SKIP)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def port_open(port):
    with socket.socket() as s:
        s.settimeout(0.5)
        return s.connect_ex(("127.0.0.1", port)) == 0


def wait_for(what, check, timeout=30.0, every=0.1):
    """check() until it returns something true; AssertionError naming what otherwise."""
    end = time.monotonic() + timeout
    last = None
    while time.monotonic() < end:
        try:
            last = check()
        except Exception as e:  # a page still loading, a process still starting
            last = e
        if last and not isinstance(last, Exception):
            return last
        time.sleep(every)
    raise AssertionError("timed out after %.0f s waiting for %s (last: %r)" % (timeout, what, last))


class Process:
    """A child process with its output in a file, stopped by its own pid."""

    def __init__(self, name, args, log_dir, cwd=None, env=None):
        self.name = name
        self.log = os.path.join(log_dir, name + ".log")
        with open(self.log, "ab") as out:
            self.proc = subprocess.Popen(args, stdout=out, stderr=subprocess.STDOUT, cwd=cwd,
                                         env=env, stdin=subprocess.DEVNULL)

    @property
    def pid(self):
        return self.proc.pid

    def output(self):
        with open(self.log, errors="replace") as f:
            return f.read()

    def stop(self, sig=signal.SIGTERM, timeout=20):
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
            try:
                self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        return self.proc.returncode


class Broker:
    def __init__(self, work):
        self.port = free_port()
        conf = os.path.join(work, "mosquitto.conf")
        with open(conf, "w") as f:
            f.write("listener %d 127.0.0.1\nallow_anonymous true\npersistence false\n" % self.port)
            # As root mosquitto would become user "mosquitto", which cannot read the temp dir.
            f.write("user %s\n" % pwd.getpwuid(os.getuid()).pw_name)
        self.process = Process("mosquitto", [MOSQUITTO, "-c", conf], work)
        wait_for("mosquitto on port %d" % self.port, lambda: port_open(self.port), 10)

    def publish(self, topic, payload, qos=1):
        data = payload if isinstance(payload, (bytes, str)) else json.dumps(payload)
        if isinstance(data, str):
            data = data.encode()
        # From stdin: a 10,000-point upload is far beyond an argument's size.
        subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.port), "-q", str(qos),
                        "-t", topic, "-s"], input=data, check=True, timeout=30)

    def subscribe(self, topic, log_dir, name):
        """A mosquitto_sub child writing "topic payload" lines to its log."""
        return Process(name, ["mosquitto_sub", "-h", "127.0.0.1", "-p", str(self.port), "-v",
                              "-t", topic], log_dir)


class Platform:
    """lumbra-platform on a free HTTP port, against the broker, in work."""

    def __init__(self, build, broker, work, extra=(), port=None):
        self.binary = os.path.join(build, "tools", "platform", "lumbra-platform")
        self.broker = broker
        self.work = work
        self.extra = list(extra)
        self.port = port or free_port()
        self.config = os.path.join(work, "platform-config")
        os.makedirs(self.config, exist_ok=True)
        self.process = None
        self.start()

    def start(self):
        args = [self.binary, "--broker", "127.0.0.1:%d" % self.broker.port,
                "--http", "127.0.0.1:%d" % self.port, "--db", os.path.join(self.work, "platform.db"),
                "--config", self.config] + self.extra
        self.process = Process("platform", args, self.work)
        wait_for("lumbra-platform on port %d" % self.port, lambda: port_open(self.port), 15)

    @property
    def url(self):
        return "http://127.0.0.1:%d/" % self.port

    def configure(self, serial, realtime=None, history=None):
        """The folder the platform answers the gateway's configuration from."""
        folder = os.path.join(self.config, serial)
        os.makedirs(folder, exist_ok=True)
        for name, doc in (("RealTimeConfiguration.json", realtime), ("HistoryConfiguration.json", history)):
            if doc is not None:
                with open(os.path.join(folder, name), "w") as f:
                    json.dump(doc, f)

    def get(self, path):
        import urllib.request
        with urllib.request.urlopen(self.url.rstrip("/") + path, timeout=10) as r:
            return json.loads(r.read())


class Gateway:
    """A publisher playing a gateway: its uploads as the real one sends them."""

    def __init__(self, broker, serial):
        self.broker = broker
        self.serial = serial
        self.prefix = "/%s_%s" % (serial, VERSION)
        self.req = 0

    def values(self, points):
        data = [{"code": code, "data": str(value)} for code, value in points.items()]
        self.broker.publish(self.prefix + "/DevSend/RTD", {"sn_code": self.serial, "data": data})

    def alarm(self, index, level, note, when, recovery=False):
        self.req += 1
        topic = "/DevSend/AlarmRecover" if recovery else "/DevSend/Alarm"
        self.broker.publish(self.prefix + topic, {"alarm_index": index, "alarm_level": level, "alarm_note": note,
                                                  "alarm_time": str(when), "reqId": str(self.req)})

    def history(self, group, rows):
        """rows: [(time, [field, ...])], fields in the group's point order."""
        data = [{"data_time": str(t), "data_text": "\n".join(fields)} for t, fields in rows]
        self.broker.publish(self.prefix + "/DevSend/Sequential/HisData",
                            {"sn_code": self.serial, "group_id": group, "data": data})


def browser(width=1400, height=1000):
    """Headless Chromium with a throw-away profile and no traffic of its own."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    profile = tempfile.mkdtemp(prefix="lumbra-chromium-")
    for arg in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
                "--disable-component-update", "--disable-sync", "--no-first-run",
                "--user-data-dir=" + profile, "--window-size=%d,%d" % (width, height)):
        options.add_argument(arg)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    driver.set_page_load_timeout(60)
    driver.lumbra_profile = profile
    return driver


def close_browser(driver):
    try:
        driver.quit()
    finally:
        shutil.rmtree(driver.lumbra_profile, ignore_errors=True)


def page_errors(driver):
    """Script errors the page logged (a favicon or a refused stream is no error)."""
    return [e["message"] for e in driver.get_log("browser")
            if e["level"] == "SEVERE" and e.get("source") != "network"]
