"""Opens a page in a real browser, prints what it says, clicks the first download on it and saves the file.

    browse_link.py URL FOLDER

Speaks the WebDriver protocol to chromedriver itself. The service's own certificate authority is not the browser's, so
certificates are not checked here. Exit status 77: there is no browser.
"""
import json
import os
import shutil
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.request


def main(url, folder):
    if not (shutil.which("chromedriver") and shutil.which("chromium")):
        return 77
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    driver = subprocess.Popen(["chromedriver", f"--port={port}"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def ask(method, path, body=None):
        request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", method=method,
                                         data=None if body is None else json.dumps(body).encode())
        with urllib.request.urlopen(request, timeout=60) as reply:
            return json.load(reply)["value"]

    session = None
    try:
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync", "--no-first-run", "--ignore-certificate-errors",
                     f"--user-data-dir={folder}/profile"]
        wanted = {"browserName": "chrome", "goog:chromeOptions": {
            "args": arguments, "prefs": {"download.default_directory": f"{folder}/downloads"}}}
        for _ in range(100):
            try:
                session = "/session/" + ask("POST", "/session", {"capabilities": {"alwaysMatch": wanted}})["sessionId"]
                break
            except urllib.error.URLError as error:
                if isinstance(error, urllib.error.HTTPError):
                    raise
                time.sleep(0.1)
        ask("POST", session + "/url", {"url": url})
        run = lambda script: ask("POST", session + "/execute/sync", {"script": script, "args": []})
        print("TITLE", run("return document.title"))
        print("TEXT", json.dumps(run("return document.body.innerText"), ensure_ascii=False))
        print("ELEMENTS", json.dumps(run("return [...new Set([...document.querySelectorAll('*')]"
                                         ".map(e => e.tagName.toLowerCase()))].sort()")))
        element, = ask("POST", session + "/element", {"using": "css selector", "value": "a.download, a[download], a"}).values()
        ask("POST", session + f"/element/{element}/click", {})
        for _ in range(300):
            done = [name for name in os.listdir(f"{folder}/downloads") if not name.endswith(".crdownload")] \
                if os.path.isdir(f"{folder}/downloads") else []
            if done:
                print("SAVED", json.dumps(done[0], ensure_ascii=False))
                return 0
            time.sleep(0.1)
        print("nothing was saved")
        return 1
    except urllib.error.HTTPError as error:
        print(error.read().decode())
        return 1
    finally:
        if session:
            ask("DELETE", session)
        driver.terminate()
        driver.wait()


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
