"""What becomes of a server's answers to the probe, to a fresh download and to one that goes on; nobody has the rights
to install what comes of it."""

from install import BROKEN, CLICKED_AGAIN, DOWNLOADING, FINISHED, REFUSED, START
from road import DOCUMENT, Road

ALL, HALF = len(DOCUMENT), 40_000
PROBE = "HEAD"

COMPLETE = [*DOWNLOADING, *FINISHED, *REFUSED]
BROKEN_OFF = [*DOWNLOADING, *BROKEN]
GOES_ON = ["> 继续", "log continue_button has been clicked", "log CoreImageView continueDownload", "show 停止", "hide 继续"]
TRIES_AGAIN = [*GOES_ON[:3], "log WebStatic:Download Start", "event 814", *GOES_ON[3:]]
STOPS = ["> stall", "> 停止", "log stop_button has been clicked", "log CoreImageView stopDownload", "hide 停止",
         "show 继续", "> release"]
GIVEN_UP = ["hide 停止", "hide 下载进度", "log Webstatic:Download Faild", "event 821"]
NOT_FOUND = ["log Target File does not exists", "status 文件不存在，请前往下载新版本Pellomar下载器", *GIVEN_UP]


def not_started(code):
    return [f"log Error Code:{code}", "status 下载失败，请直接双击镜像中的APP开始下载", *GIVEN_UP]


def road(lines, *answers, **more):
    return Road([*START, *lines], rights="none", answers=answers, **more)


def fresh(answer, lines=COMPLETE, holds=ALL, asked=None):
    return road(lines, {}, answer, {}, holds=holds, asked=asked)


def resumed(answer, holds=HALF, lines=BROKEN_OFF, then=(*TRIES_AGAIN, *COMPLETE)):
    """When HALF is there; it breaks off again, and comes to its end in the third attempt."""
    return road([*BROKEN_OFF, *TRIES_AGAIN, *lines, *then], {}, {"cut": HALF}, {}, answer, {},
                holds=ALL if then else holds, asked=[PROBE, None, *[PROBE, HALF] * (2 if then else 1)])


STALL_AT_ONCE = {"head": 0, "ending": "stall"}

DOWNLOAD_ROADS = {
    "answers to the probe": {
        "close": road(not_started(52), {"head": 0}, asked=[PROBE]),
        "refuse": road(not_started(7), {"arrival": "refuse"}),
        "no length": road(NOT_FOUND, {"length": None}, asked=[PROBE]),
        # There is no transfer yet that it could stop.
        "stop during a stall": road([*STOPS, *DOWNLOADING, *FINISHED[:3], "hide 继续", *FINISHED[4:], *REFUSED],
                                    STALL_AT_ONCE, {}, holds=ALL),
        "page of an error": road(COMPLETE, {"status": 404, "body": 8}, holds=8),
        "redirect": road(COMPLETE, {"redirect": "http://127.0.0.1:1/"}, asked=[PROBE, None]),
    },
    "answers to a fresh download": {
        "cut": fresh({"cut": HALF}, [*BROKEN_OFF, *TRIES_AGAIN, *COMPLETE], asked=[PROBE, None, PROBE, HALF]),
        "breaks each time": road([*BROKEN_OFF, *[*TRIES_AGAIN, *BROKEN_OFF] * 3, *TRIES_AGAIN, *not_started(52)],
                                 {}, {"cut": 1}, {}, {"cut": 0}, {}, {"cut": HALF}, {}, {"cut": -1}, {"head": 0},
                                 holds=ALL - 1, asked=[PROBE, None, PROBE, 1, PROBE, 1, PROBE, 1 + HALF, PROBE]),
        "reset": fresh({"cut": HALF, "ending": "reset"}, [*BROKEN_OFF, *TRIES_AGAIN, *COMPLETE]),
        "stop during a stall": fresh({"cut": HALF, "ending": "stall"},
                                     [*DOWNLOADING, "> 40%", *STOPS, "status 已停止下载", *GOES_ON, *COMPLETE],
                                     asked=[PROBE, None, PROBE, HALF]),
        "no length": fresh({"length": None}),
        "a folder in the file's place": road(COMPLETE, {}, stale=["Downloads/NVInst/Pellomar.tmp/deep"], holds=ALL),
        "a file in the folder's place": road(COMPLETE, {}, stale=["Downloads/NVInst"], holds=ALL),
        "a link in the file's place": road(COMPLETE, {}, stale=["Downloads/NVInst/Pellomar.pkg"], holds=ALL,
                                           prepare=lambda machine: machine.file("tmp").symlink_to("/etc/hosts")),
        "longer than told": fresh({"length": ALL - 1}, holds=ALL - 1),
        "5 GB": road(BROKEN_OFF, {"length": 5_000_000_000}, holds=ALL),
        "compressed": fresh({"headers": {"Content-Encoding": "gzip"}}),
    },
    "answers to a download that goes on": {
        "range ignored": resumed({"range": "ignore"}),
        "range shifted": resumed({"range": "shift"}),
        "page of an error": resumed({"status": 404, "body": 8}),
        "redirect": resumed({"redirect": "http://127.0.0.1:1/"}),
        # Taken for the end; the installer is what refuses it.
        "nothing left": resumed({"status": 416, "body": ""}, lines=COMPLETE, then=()),
        "refuse": road([*BROKEN_OFF, *TRIES_AGAIN, *not_started(7)], {}, {"cut": HALF}, {"arrival": "refuse"},
                       holds=HALF),
    },
    "a second attempt at the rights does not download again": road([*COMPLETE, *CLICKED_AGAIN, *REFUSED], {},
                                                                  asked=[PROBE, None], holds=ALL),
}
