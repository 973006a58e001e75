"""The web host's rules, one request at a time, with no browser."""

import http.client
import json
import os
import socket
import subprocess
import time
import unittest

from server import BINARY, Server, make_fixture, remove_fixture


class SecurityTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.root, cls.home = make_fixture()
        cls.server = Server(cls.root, cls.home)

    @classmethod
    def tearDownClass(cls):
        status = cls.server.stop()
        remove_fixture(cls.root)
        assert status == 0, f"ravelin serve ended with {status}"

    def request(self, method, path, body=None, headers=None, token=True, host=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=60)
        all_headers = {}
        if token:
            all_headers["Authorization"] = "Bearer " + self.server.token
        if body is not None and not isinstance(body, (bytes, str)):
            body = json.dumps(body)
            all_headers["Content-Type"] = "application/json"
        all_headers.update(headers or {})
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        connection.putheader("Host", host or f"127.0.0.1:{self.server.port}")
        for key, value in all_headers.items():
            connection.putheader(key, value)
        if body is not None:
            connection.putheader("Content-Length", str(len(body)))
        connection.endheaders(body.encode() if isinstance(body, str) else body)
        response = connection.getresponse()
        data = response.read()
        connection.close()
        return response, data

    def finished_scan(self):
        _, data = self.request("POST", "/api/scans", {"kind": "dupes"})
        scan = json.loads(data)["id"]
        # The events end when the scan settles.
        response, events = self.request("GET", f"/api/scans/{scan}/events")
        self.assertIn(b"event: finished", events)
        _, data = self.request("GET", f"/api/scans/{scan}")
        return scan, json.loads(data)

    def test_each_rule_refuses_its_request(self):
        port = self.server.port
        wrong = "A" * len(self.server.token)
        cases = [
            ("no token", dict(method="GET", path="/api/disk", token=False), 401),
            ("wrong token", dict(method="GET", path="/api/disk", token=False,
                                 headers={"Authorization": "Bearer " + wrong}), 401),
            ("wrong cookie", dict(method="GET", path="/api/disk", token=False,
                                  headers={"Cookie": f"ravelin_{port}={wrong}"}), 401),
            ("token in another port's cookie", dict(
                method="GET", path="/api/disk", token=False,
                headers={"Cookie": f"ravelin_{port + 1}={self.server.token}"}), 401),
            ("a rebound name", dict(method="GET", path="/api/disk", host=f"attacker.example:{port}"), 403),
            ("another port", dict(method="GET", path="/api/disk", host=f"127.0.0.1:{port + 1}"), 403),
            ("no port", dict(method="GET", path="/", host="localhost"), 403),
            ("foreign origin", dict(method="POST", path="/api/scans", body={"kind": "dupes"},
                                    headers={"Origin": "http://attacker.example"}), 403),
            ("origin of another port", dict(method="POST", path="/api/scans", body={"kind": "dupes"},
                                            headers={"Origin": f"http://127.0.0.1:{port + 1}"}), 403),
            ("cross-site fetch", dict(method="GET", path="/api/disk",
                                      headers={"Sec-Fetch-Site": "cross-site"}), 403),
            ("form post", dict(method="POST", path="/api/scans", body="kind=dupes",
                               headers={"Content-Type": "application/x-www-form-urlencoded"}), 400),
            ("text post", dict(method="POST", path="/api/scans", body='{"kind": "dupes"}',
                               headers={"Content-Type": "text/plain"}), 400),
            ("unknown kind", dict(method="POST", path="/api/scans", body={"kind": "everything"}), 400),
            ("relative root", dict(method="POST", path="/api/scans",
                                   body={"kind": "dupes", "roots": ["home"]}), 400),
            ("2 MiB body", dict(method="POST", path="/api/scans", body=b"{" + b" " * (2 << 20) + b"}",
                                headers={"Content-Type": "application/json"}), 413),
            ("unknown api", dict(method="GET", path="/api/files"), 404),
            ("unknown page", dict(method="GET", path="/etc/passwd"), 404),
            ("dot-dot", dict(method="GET", path="/../../../etc/passwd"), 404),
            ("encoded dot-dot", dict(method="GET", path="/%2e%2e/%2e%2e/etc/passwd"), 404),
            ("encoded slash", dict(method="GET", path="/vendor%2f..%2f..%2fetc%2fpasswd"), 404),
            ("no such scan", dict(method="GET", path="/api/scans/999"), 404),
        ]
        for name, arguments, status in cases:
            with self.subTest(name):
                response, data = self.request(**arguments)
                self.assertEqual(response.status, status, data[:200])
                self.assertNotIn(b"root:", data)
                self.assertIsNone(response.getheader("Access-Control-Allow-Origin"))

    def test_the_printed_address_sets_a_strict_cookie_and_leaves_the_address_bar(self):
        response, _ = self.request("GET", "/?token=" + self.server.token, token=False)
        self.assertEqual(response.status, 303)
        self.assertEqual(response.getheader("Location"), "/")
        cookie = response.getheader("Set-Cookie")
        self.assertIn(f"ravelin_{self.server.port}={self.server.token}", cookie)
        self.assertIn("HttpOnly", cookie)
        self.assertIn("SameSite=Strict", cookie)
        response, _ = self.request("GET", "/?token=" + "B" * 43, token=False)
        self.assertEqual(response.status, 401)
        response, data = self.request("GET", "/api/disk", token=False,
                                      headers={"Cookie": f"other=1; ravelin_{self.server.port}={self.server.token}"})
        self.assertEqual(response.status, 200, data)
        response, page = self.request("GET", "/", token=False)
        self.assertTrue(response.getheader("Content-Security-Policy").startswith("default-src 'self'"))
        self.assertNotIn(b"<script>", page)

    def test_a_deletion_names_only_what_its_scan_reported(self):
        scan, body = self.finished_scan()
        reported = {m["path"] for g in body["result"]["groups"] for m in g}
        notes = os.path.join(self.home, "Documents/notes.txt")
        outside = os.path.join(self.root, "..", os.path.basename(self.root), "home/ada/Pictures/beach.png")
        for name, paths in [("a file the scan didn't report", [notes]),
                            ("a reported path reached through ..", [outside]),
                            ("a reported path with a trailing slash", [sorted(reported)[0] + "/"]),
                            ("nothing", [])]:
            with self.subTest(name):
                response, data = self.request("POST", f"/api/scans/{scan}/deletions", {"paths": paths})
                self.assertEqual(response.status, 400, data)
        self.assertTrue(os.path.exists(notes))
        # Every member of a group named: the kept one stays.
        group = next(g for g in body["result"]["groups"] if g[0]["path"].endswith("report.txt"))
        response, data = self.request("POST", f"/api/scans/{scan}/deletions",
                                      {"paths": [m["path"] for m in group], "keep": "shortest-path"})
        self.assertEqual(response.status, 201, data)
        deletion = json.loads(data)["id"]
        self.request("GET", f"/api/deletions/{deletion}/events")
        _, data = self.request("GET", f"/api/deletions/{deletion}")
        outcome = json.loads(data)
        self.assertEqual(outcome["state"], "finished")
        self.assertEqual(outcome["deleted"], [os.path.join(self.home, "Documents/old/report.txt")])
        self.assertEqual([f["path"] for f in outcome["failed"]], [os.path.join(self.home, "Documents/report.txt")])
        self.assertTrue(os.path.exists(os.path.join(self.home, "Documents/report.txt")))
        # What is gone can't be named again.
        response, _ = self.request("POST", f"/api/scans/{scan}/deletions",
                                   {"paths": [os.path.join(self.home, "Documents/old/report.txt")]})
        self.assertEqual(response.status, 400)

    def scan(self, kind, **options):
        _, data = self.request("POST", "/api/scans", {"kind": kind, **options})
        scan = json.loads(data)["id"]
        self.request("GET", f"/api/scans/{scan}/events")
        return scan, json.loads(self.request("GET", f"/api/scans/{scan}")[1])["result"]

    def delete(self, scan, body):
        response, data = self.request("POST", f"/api/scans/{scan}/deletions", body)
        self.assertEqual(response.status, 201, data)
        deletion = json.loads(data)["id"]
        self.request("GET", f"/api/deletions/{deletion}/events")
        return json.loads(self.request("GET", f"/api/deletions/{deletion}")[1])

    def test_an_installed_applications_settings_stay(self):
        scan, result = self.scan("apps", files=True)
        files = {f["path"]: f["kind"] for a in result["apps"] for f in a["files"]}
        self.assertEqual(result["apps"][0]["icon"],
                         os.path.join(self.root, "usr/share/icons/hicolor/48x48/apps/org.gnome.TextEditor.png"))
        for app, status in [("org.gnome.TextEditor", 200), ("org.videolan.vlc", 404), ("", 404)]:
            response, _ = self.request("GET", f"/api/scans/{scan}/icon?app={app}")
            self.assertEqual(response.status, status, app)
        settings = os.path.join(self.home, ".config/gnome-text-editor")
        self.assertIn(settings, files)
        outcome = self.delete(scan, {"paths": [settings]})
        self.assertEqual(outcome["deleted"], [])
        self.assertIn("installed", outcome["failed"][0]["reason"])
        self.assertTrue(os.path.exists(os.path.join(settings, "settings.ini")))

    def test_kinds_refuse_what_they_cannot_delete(self):
        junk, _ = self.scan("junk")
        startup, result = self.scan("startup")
        large, _ = self.scan("large", min_size=1 << 20)
        path = result["items"][0]["path"]
        for name, scan, body in [("a startup item", startup, {"paths": [path]}),
                                 ("an unknown category", junk, {"categories": ["everything"]}),
                                 ("a category of another kind", large, {"categories": ["trash"]}),
                                 ("a path of another scan", large, {"paths": [path]})]:
            with self.subTest(name):
                response, data = self.request("POST", f"/api/scans/{scan}/deletions", body)
                self.assertEqual(response.status, 400, data)
        self.assertTrue(os.path.exists(path))

    def test_rules_answer_as_the_command_line_and_a_broken_document_is_a_bad_request(self):
        response, data = self.request("GET", "/api/rules?for=org.videolan.vlc")
        cli = subprocess.run([BINARY, "--root", self.root, "rules", "--for", "org.videolan.vlc", "--json"],
                             capture_output=True, text=True, check=True,
                             env=dict(os.environ, HOME="/" + os.path.relpath(self.home, self.root)))
        # Node numbers count every compile of the process; all else is the command line's.
        def unnumbered(report):
            for key in ("nodes", "junk"):
                for node in report["for"][key]:
                    node.pop("node")
            return report

        self.assertEqual(response.status, 200)
        self.assertEqual(unnumbered(json.loads(data)), unnumbered(json.loads(cli.stdout)))
        for name, document, status in [("not YAML", "rules: [unclosed", 400),
                                       ("not a rule document", "- 1\n- 2\n", 400),
                                       ("no document", None, 400)]:
            with self.subTest(name):
                body = {"for": "vlc"} if document is None else {"document": document}
                response, data = self.request("POST", "/api/rules/check", body)
                self.assertEqual(response.status, status, data)
                self.assertIn("error", json.loads(data))

    def test_pictures_are_served_only_for_reported_files(self):
        scan, body = self.finished_scan()
        beach = os.path.join(self.home, "Pictures/beach.png")
        response, data = self.request("GET", f"/api/scans/{scan}/picture?path={beach}")
        self.assertEqual((response.status, response.getheader("Content-Type")), (200, "image/png"))
        for path in ["/etc/passwd", os.path.join(self.home, "Documents/notes.txt")]:
            response, _ = self.request("GET", f"/api/scans/{scan}/picture?path={path}")
            self.assertEqual(response.status, 404, path)

    @unittest.skipIf(os.environ.get("RAVELIN_SANITIZED"), "a sanitizer holds freed memory back")
    def test_a_thousand_requests_leave_memory_as_it_was(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=60)
        headers = {"Authorization": "Bearer " + self.server.token, "Host": f"127.0.0.1:{self.server.port}"}

        def burst(count):
            for i in range(count):
                connection.request("GET", "/api/disk" if i % 2 else "/api/scans/999", headers=headers)
                connection.getresponse().read()

        burst(300)
        before = self.server.resident_kb()
        burst(1000)
        after = self.server.resident_kb()
        connection.close()
        self.assertLess(after - before, 1024, f"{before} kB before, {after} kB after")

    def test_a_scan_still_running_refuses_deletions_and_stops_on_request(self):
        big = os.path.join(self.home, "many")
        os.makedirs(big, exist_ok=True)
        for i in range(3000):
            with open(os.path.join(big, f"{i}.txt"), "w") as out:
                out.write(str(i % 50) * 300)
        try:
            _, data = self.request("POST", "/api/scans", {"kind": "dupes", "roots": [big]})
            scan = json.loads(data)["id"]
            response, data = self.request("POST", f"/api/scans/{scan}/deletions",
                                          {"paths": [os.path.join(big, "1.txt")]})
            _, state = self.request("GET", f"/api/scans/{scan}")
            if json.loads(state)["state"] == "running":
                self.assertEqual(response.status, 409, data)
            self.request("DELETE", f"/api/scans/{scan}")
            self.request("GET", f"/api/scans/{scan}/events")
            _, state = self.request("GET", f"/api/scans/{scan}")
            self.assertIn(json.loads(state)["state"], ("stopped", "finished"))
        finally:
            import shutil
            shutil.rmtree(big)


class ShutdownTest(unittest.TestCase):
    def test_open_hands_the_address_to_the_desktop(self):
        root, home = make_fixture()
        self.addCleanup(remove_fixture, root)
        tools = os.path.join(root, "tools")
        os.makedirs(tools)
        opened = os.path.join(root, "opened")
        with open(os.path.join(tools, "xdg-open"), "w") as script:
            script.write(f'#!/bin/sh\nprintf "%s" "$1" > "{opened}.part" && mv "{opened}.part" "{opened}"\n')
        os.chmod(os.path.join(tools, "xdg-open"), 0o755)
        env = dict(os.environ, PATH=tools + ":" + os.environ["PATH"], DISPLAY=":0")
        server = Server(root, home, ["--open"], env)
        self.addCleanup(server.stop)
        # The address reaches the desktop's opener whole, token included; waited for by its file.
        deadline = time.monotonic() + 60
        while not os.path.exists(opened) and time.monotonic() < deadline:
            time.sleep(0.05)
        with open(opened) as given:
            self.assertEqual(given.read(), server.address)

    def test_sigterm_during_a_scan_stops_it_and_ends_cleanly(self):
        root, home = make_fixture()
        self.addCleanup(remove_fixture, root)
        for i in range(2000):
            folder = os.path.join(home, "many", str(i // 100))
            os.makedirs(folder, exist_ok=True)
            with open(os.path.join(folder, f"{i}"), "w") as out:
                out.write(str(i % 100) * 100)
        server = Server(root, home)
        self.addCleanup(server.stop)
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=60)
        connection.request("POST", "/api/scans", body=json.dumps({"kind": "dupes"}), headers={
            "Authorization": "Bearer " + server.token, "Content-Type": "application/json"})
        created = connection.getresponse()
        self.assertEqual((created.status, json.loads(created.read())), (201, {"id": "1"}))
        # An open event stream must not hold the end up either.
        connection.request("GET", "/api/scans/1/events", headers={"Authorization": "Bearer " + server.token})
        response = connection.getresponse()
        response.fp.readline()
        self.assertEqual(server.stop(), 0)
        connection.close()


if __name__ == "__main__":
    unittest.main()
