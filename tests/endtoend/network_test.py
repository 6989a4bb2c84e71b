"""The server and the network let the user down."""

import http.server
import re
import threading

from harness import BAR, EndToEndTest, main

FAILED_TO_START = "下载失败，请直接双击镜像中的APP开始下载"
NOT_FOUND = "文件不存在，请前往下载新版本Pellomar下载器"
NETWORK_FAILURE = "网络异常，请稍后重试"


class Network(EndToEndTest):
    def test_server_that_goes_away_in_mid_body(self):
        self.world.serve("800k")
        program = self.start()
        program.wait_for("a tenth of the package", lambda: program.percent() >= 10)
        self.world.stop_serving()
        program.wait_for_screen(NETWORK_FAILURE, "继续", BAR)
        held = program.file().stat().st_size
        self.assertGreater(held, 0)
        self.assertEqual(program.events(), ["14 814", "14 821"])

        program.press("继续")
        program.wait_for_screen(FAILED_TO_START)
        self.assertEqual(program.file().stat().st_size, held)
        self.assertEqual(program.events(), ["14 814", "14 821", "14 814", "14 821"])

    def test_continue_after_a_failure_fetches_the_rest(self):
        self.world.serve("800k")
        program = self.start()
        program.wait_for("a tenth of the package", lambda: program.percent() >= 10)
        self.world.stop_serving()
        program.wait_for_screen(NETWORK_FAILURE, "继续", BAR)
        held = program.file().stat().st_size
        self.world.forget_requests()

        self.world.serve()
        program.press("继续")
        self.assert_left(program)
        self.assert_whole(program.file("pkg"))
        body = [line for line in self.world.requests() if "GET" in line]
        self.assertEqual([re.search(r'range="(.*?)" (\d+)', line).groups() for line in body], [(f"bytes={held}-", "206")])
        self.assertEqual(program.events()[:4], ["14 814", "14 821", "14 814", "14 815"])

    def test_probe_without_an_outcome(self):
        """Nothing is left to press, and nothing but the status to read."""
        rows = (
            ("no length", LengthlessServer, NOT_FOUND, "Target File does not exists"),
            ("nobody listens", None, FAILED_TO_START, "Error Code:7"),
        )
        for name, server, status, line in rows:
            with self.row(name=name), (server or Nobody)(self.world.endpoint()):
                program = self.start()
                program.wait_for_screen(status)
                self.assertEqual(program.screen()[1], [status])
                program.wait_for_line("Webstatic:Download Faild")
                self.assertEqual(program.lines().count(line), 1)
                self.assertEqual(program.events(), ["14 814", "14 821"])
                self.assert_closes(program)


class Nobody:
    def __init__(self, _):
        pass

    def __enter__(self):
        pass

    def __exit__(self, *_):
        pass


class LengthlessServer(Nobody):
    """Has the file, but does not say how long it is."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_HEAD(self):
            self.send_response(200)
            self.end_headers()

        def log_message(self, *_):
            pass

    def __init__(self, endpoint):
        self.server = http.server.HTTPServer(endpoint, self.Handler)
        self.thread = threading.Thread(target=self.server.serve_forever)

    def __enter__(self):
        self.thread.start()

    def __exit__(self, *_):
        self.server.shutdown()
        self.thread.join()
        self.server.server_close()


if __name__ == "__main__":
    main()
