#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/WorkerThread.h"
#include "report/WebStatic.h"
#include "support/WaitUntil.h"
#include "transfer/FaultServer.h"
#include "window/Window.h"

#include <QTest>

#include <curl/curl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <iterator>
#include <random>
#include <set>

namespace {

using enum Answer::Arrival;
using enum Answer::Ending;

using Bytes = std::int64_t;
constexpr Bytes kAll = 100'000, kHalf = 40'000, kRest = kAll - kHalf;
constexpr int kPart = CURLE_PARTIAL_FILE, kLost = CURLE_RECV_ERROR, kEmpty = CURLE_GOT_NOTHING,
              kRange = CURLE_RANGE_ERROR, kWeird = CURLE_WEIRD_SERVER_REPLY;

/// What the user sees, and what is reported on the way there.
struct Screen {
    const char* status;
    std::vector<std::string> buttons;
    std::vector<std::string> events{};
};

const Screen kProbing{"正在检测网络", {"stop_button"}}, kTransferring{"正在下载Pellomar", {"stop_button"}},
    kStopped{"已停止下载", {"continue_button"}},
    kBroken{"网络异常，请稍后重试", {"continue_button"}, {"14-821"}},
    kFinished{"获取权限失败，请重试", {"continueInsTall_button"}, {"14-815"}}, // nobody installs here
    kNotFound{"文件不存在，请前往下载新版本Pellomar下载器", {}, {"14-821"}},
    kNotStarted{"下载失败，请直接双击镜像中的APP开始下载", {}, {"14-821"}};

/// Where an answer leads: the screen, libcurl's result, and the bytes that reach the file or, where it was
/// the probe's and the download goes on, that the probe told.
struct End {
    const Screen* screen;
    int result;
    Bytes bytes;
};

const auto finished = [](Bytes bytes) { return End{&kFinished, CURLE_OK, bytes}; };
const auto stopped = [](Bytes bytes, int code = CURLE_WRITE_ERROR) { return End{&kStopped, code, bytes}; };
const auto broken = [](int result, Bytes bytes = 0) { return End{&kBroken, result, bytes}; };
const End noLength{&kNotFound, -1, 0};

/// Of the probe's answer, a fresh download's, and of one that goes on at kHalf.
using Ends = std::array<End, 3>;

const Ends kWhole{finished(kAll), finished(kAll), finished(kRest)},
    kNoRange{finished(kAll), finished(kAll), broken(kRange)};
const auto same = [](const End& end) { return Ends{end, end, end}; };
const auto none = [](int code) { return Ends{End{&kNotStarted, code, 0}, broken(code), broken(code)}; };
const auto cut = [](Bytes told) { return Ends{finished(told), broken(kPart, kAll), broken(kPart, kRest)}; };
const auto probed = [](const End& fresh, const End& resume) { return Ends{finished(kAll), fresh, resume}; };
const auto unprobed = [](const End& body) { return Ends{noLength, body, body}; };

Answer chunked(const std::string& wire) {
    return {.headers = "Transfer-Encoding: chunked\r\n", .length = "", .body = "chunk", .wire = wire};
}

const std::string kGoOn = "HTTP/1.1 100 Continue\r\n\r\n",
                  kEarly = "Content-Range: bytes 39999-99999/100000\r\n",
                  kFlood = QByteArray("X-Header: and so on\r\n").repeated(50'000).toStdString();

struct Fault {
    const char* name;
    Answer answer;
    Ends ends;
};

const Fault kFaults[] = {
    {"none", {}, kWhole},
    {"close at byte 0", {.head = 0}, none(kEmpty)},
    {"close in the headers", {.head = 30}, unprobed(finished(0))},
    {"close in the body", {.upTo = kHalf}, probed(broken(kPart, kHalf), broken(kPart, kHalf))},
    {"close at the end", {.upTo = -1}, probed(broken(kPart, kAll - 1), broken(kPart, kRest - 1))},
    {"reset at byte 0", {.head = 0, .ending = Reset}, none(kLost)},
    {"reset in the headers", {.head = 30, .ending = Reset}, none(kLost)},
    {"reset in the body",
     {.upTo = kHalf, .ending = Reset},
     probed(broken(kLost, kHalf), broken(kLost, kHalf))},
    {"reset at the end", {.upTo = -1, .ending = Reset}, probed(broken(kLost, kAll), broken(kLost, kRest))},
    {"stall at byte 0", {.head = 0, .ending = Stall}, probed(stopped(0), stopped(0))},
    {"stall in the headers", {.head = 30, .ending = Stall}, probed(stopped(0), stopped(0))},
    {"stall in the body", {.upTo = kHalf, .ending = Stall}, probed(stopped(kHalf), stopped(kHalf))},
    {"stall at the end", {.upTo = -1, .ending = Stall}, probed(stopped(kAll - 1), stopped(kRest - 1))},
    {"refused", {.arrival = Refused}, none(CURLE_COULDNT_CONNECT)},
    {"late close", {.head = 0, .arrival = Slow}, {none(kEmpty)[0], stopped(0, kEmpty), stopped(0, kEmpty)}},
    {"black hole", {.arrival = BlackHole}, probed(stopped(0), stopped(0))},
    {"drip", {.body = "one byte at a time", .drip = 1}, same(finished(18))},
    {"no length", {.length = ""}, {noLength, finished(kAll), finished(kRest)}},
    {"shorter than told", {.length = "60001"}, {finished(60'001), finished(60'001), broken(kPart, kRest)}},
    {"longer than told", {.length = "59999"}, same(finished(59'999))},
    {"length 0", {.length = "0"}, same(finished(0))},
    {"5 GB", {.length = "5000000000"}, cut(5'000'000'000)},
    {"largest", {.length = "9223372036854775807"}, cut(INT64_MAX)},
    {"larger still", {.length = "9223372036854775808"}, {noLength, finished(kAll), finished(kRest)}},
    {"negative length", {.length = "-5"}, none(kWeird)},
    {"length no number", {.length = "many"}, none(kWeird)},
    {"two lengths", {.headers = "Content-Length: 7\r\n"}, kWhole},
    {"chunked", chunked("5\r\nchunk\r\n0\r\n\r\n"), unprobed(finished(5))},
    {"chunk cut off", chunked("5\r\nchu"), unprobed(broken(kPart, 3))},
    {"no last chunk", chunked("5\r\nchunk\r\n"), unprobed(broken(kPart, 5))},
    {"chunk of no size", chunked("?\r\nchunk\r\n"), unprobed(broken(kLost))},
    {"200", {.status = 200}, kNoRange},
    {"empty 200", {.status = 200, .body = ""}, same(finished(0))},
    {"200 of 40000", {.status = 200, .length = "40000"}, {finished(kHalf), finished(kHalf), finished(0)}},
    {"206 a byte early", {.status = 206, .headers = kEarly}, kNoRange},
    {"404", {.status = 404, .body = "not here"}, {finished(8), finished(8), broken(kRange)}},
    {"416", {.status = 416, .body = "no range"}, {finished(8), finished(8), finished(0)}},
    {"204", {.status = 204, .length = "", .body = ""}, same(finished(0))},
    {"304", {.status = 304, .length = "", .body = ""}, same(finished(0))},
    {"500", {.status = 500, .body = "sorry"}, {finished(5), finished(5), broken(kRange)}},
    {"redirect", {.status = 302, .headers = "Location: http://127.0.0.1:1/\r\n"}, kNoRange},
    {"100 first", {.before = kGoOn}, kWhole},
    {"100 only", {.before = kGoOn, .head = 0}, none(kEmpty)},
    {"HTTP 1.0", {.version = "HTTP/1.0"}, kWhole},
    {"no HTTP", {.version = "SSH-2.0"}, none(CURLE_UNSUPPORTED_PROTOCOL)},
    {"gzip", {.headers = "Content-Encoding: gzip\r\n"}, kWhole},
    {"flood of headers", {.headers = kFlood}, none(kLost)},
    {"endless header", {.headers = "X: " + std::string(200'000, 'x')}, none(CURLE_OUT_OF_MEMORY)}};

void PrintTo(const Fault& fault, std::ostream* stream) {
    *stream << fault.name;
}

enum Phase { Probe, Fresh, Resume };

class FaultScreens : public Window {
  protected:
    FaultScreens() {
        std::ranges::generate(document_, std::mt19937()); // any cut, shift or repetition shows
        const std::string tool = webStatisticsPath(executablePath());
        std::ofstream(tool) << "#!/bin/sh\necho $1-$2 >>'" << home_.path() << "/events'\n";
        chmod(tool.c_str(), 0755);
    }
    ~FaultScreens() override { static_cast<void>(removeItem(webStatisticsPath(executablePath()))); }

    void start(std::vector<Answer> answers) {
        server_.emplace(document_, std::move(answers));
        url = server_->url();
        press("start_button", {"14-814"});
    }

    void press(const std::string& name, const std::vector<std::string>& events) {
        QTest::mouseClick(&button(name), Qt::LeftButton);
        told_.insert(events.begin(), events.end());
    }

    /// Has the window served until the condition holds; what the probe prints stays out of the report.
    static bool await(const std::function<bool()>& condition) {
        const CapturedLog headers(STDOUT_FILENO);
        return waitUntil([&] {
            QCoreApplication::processEvents();
            return condition();
        });
    }

    [[nodiscard]] std::string file() const {
        return readFile(home_.path() + "/Downloads/NVInst/Pellomar.tmp").value_or("");
    }

    [[nodiscard]] std::multiset<std::string> events() const { // their order is not certain
        std::ifstream file(home_.path() + "/events");
        return {std::istream_iterator<std::string>(file), {}};
    }

    void expectScreen(const Screen& screen) {
        EXPECT_EQ(status(), screen.status);
        EXPECT_EQ(visibleButtons(), screen.buttons);
        const bool isTheEnd = screen.buttons.empty();
        EXPECT_EQ(bar().isVisible(), !isTheEnd);
        EXPECT_EQ(labels()[1]->isVisible(), !isTheEnd);
        EXPECT_EQ(log_.count("Webstatic:Download Faild\n"), isTheEnd ? 1 : 0);
    }

    /// Waits until nothing is under way. Of the latest answer, which must have been asked for from the file's
    /// end on, `bytes` must have been added to it; fewer do where a reset has overtaken the others.
    void expectEnd(const Screen& screen, Bytes bytes, bool isReset = false) {
        ASSERT_TRUE(await([] { return WorkerThread::running() == 0; }));
        expectScreen(screen);
        told_.insert(screen.events.begin(), screen.events.end());
        EXPECT_TRUE(await([this] { return events() == told_; })) << testing::PrintToString(events());

        const auto [request, answer] = server_->latest();
        const std::string before = std::exchange(held_, file());
        const Bytes added = std::ssize(held_) - std::ssize(before);
        EXPECT_TRUE(added == bytes || (isReset && added < bytes)) << added << ", not " << bytes;
        EXPECT_TRUE(held_ == before + answer.substr(0, added)) << "bytes in a wrong place";
        const std::string range = "\r\nRange: bytes=" + std::to_string(before.size()) + "-\r\n";
        EXPECT_TRUE(added == 0 || before.empty() || request.find(range) != std::string::npos) << request;
        EXPECT_DOUBLE_EQ(bar().doubleValue(), length_ == 0 ? 0 : held_.size() * 100.0 / length_);
    }

    std::string document_ = std::string(kAll, '\0');
    Bytes length_ = kAll; ///< that the probe told
    std::optional<FaultServer> server_;
    std::string held_;                ///< the file as it was
    std::multiset<std::string> told_; ///< events
};

class Faults : public FaultScreens, public testing::WithParamInterface<std::tuple<Fault, Phase>> {};

TEST_P(Faults, LeadToTheirScreens) {
    const auto& [fault, phase] = GetParam();
    const auto& [name, answer, ends] = fault;
    const auto [screen, result, bytes] = ends[phase];
    std::vector<Answer> answers(phase == Probe ? 0 : phase == Fresh ? 1 : 3);
    answers.push_back(answer);
    if (phase == Resume) {
        answers[1].upTo = kHalf;
    }
    start(answers);
    if (phase == Resume) {
        expectEnd(kBroken, kHalf);
        press("continue_button", {"14-814"});
    }
    EXPECT_TRUE(await([&] { return server_->isStalled() || WorkerThread::running() == 0; }));
    if (server_->isStalled()) {
        const Screen& waiting = phase == Probe ? kProbing : kTransferring;
        const Bytes size = std::ssize(held_) + (phase == Probe ? 0 : bytes);
        EXPECT_TRUE(await([&] { return status() == waiting.status && std::ssize(file()) == size; }));
        expectScreen(waiting);
        press("stop_button", {});
        expectScreen({waiting.status, {"continue_button"}});
        server_->endStalls();
    }
    if (phase == Probe) {
        length_ = bytes;
        expectEnd(*screen, screen == &kFinished ? kAll : 0);
    } else {
        expectEnd(*screen, bytes, answer.ending == Reset);
    }
    const int earlier = phase == Resume && result == kPart ? 1 : 0;
    EXPECT_EQ(log_.count("Code:" + std::to_string(result) + "\n"), result < 0 ? 0 : earlier + 1)
        << log_.text();
    if (screen == &kStopped) {
        press("continue_button", {});
        expectEnd(kFinished, kAll - std::ssize(held_));
    } else if (screen == &kBroken) {
        press("continue_button", {"14-814"});
        const bool isGone = answer.arrival == Refused;
        expectEnd(isGone ? kNotStarted : kFinished, isGone ? 0 : kAll - std::ssize(held_));
    }
}

INSTANTIATE_TEST_SUITE_P(, Faults,
                         testing::Combine(testing::ValuesIn(kFaults), testing::Values(Probe, Fresh, Resume)));

TEST_F(FaultScreens, OfAHostThatDoesNotExist) {
    server_.emplace(document_);
    url = "http://nowhere.invalid/";
    press("start_button", {"14-814"});
    expectEnd(kNotStarted, 0);
    EXPECT_EQ(log_.count("Error Code:6\n"), 1);
}

TEST_F(FaultScreens, OfADiskThatIsFull) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    const rlimit small{50'001, RLIM_INFINITY};
    ASSERT_EQ(prlimit(0, RLIMIT_FSIZE, &small, &before), 0);
    start({{}, {.drip = 999}}); // in blocks that a buffer would hold back
    expectEnd(kBroken, 50'001);
    press("continue_button", {"14-814"});
    expectEnd(kBroken, 0);
    ASSERT_EQ(prlimit(0, RLIMIT_FSIZE, &before, nullptr), 0);
    press("continue_button", {"14-814"});
    expectEnd(kFinished, kAll - 50'001);
}

TEST_F(FaultScreens, OfAServerThatBreaksOffEachTime) {
    start({{}, {.upTo = 1}, {}, {.head = 0}, {}, {.upTo = kHalf}, {}, {.upTo = -1}, {.head = 0}});
    expectEnd(kBroken, 1);
    for (const Bytes bytes : {Bytes{0}, kHalf, kRest - 2}) {
        press("continue_button", {"14-814"});
        expectEnd(kBroken, bytes);
    }
    press("continue_button", {"14-814"});
    expectEnd(kNotStarted, 0);
}

} // namespace
