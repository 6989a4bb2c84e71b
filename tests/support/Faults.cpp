#include "support/Faults.h"

namespace {

using Place = Answer::Place;

constexpr Place kAtOnce{Place::Headers, 0};
constexpr Place kInHeaders{Place::Headers, 30};
constexpr Place kAfterHeaders{Place::Body, 0};
constexpr Place kInBody{Place::Body, kMidBody};
constexpr Place kLastByte{Place::Body, -1};

} // namespace

const std::vector<Fault>& faults() {
    static const std::vector<Fault> all = {
        {"none", {}},

        {"closed at once", {.upTo = kAtOnce, .then = Answer::Close}},
        {"closed in the headers", {.upTo = kInHeaders, .then = Answer::Close}},
        {"closed after the headers", {.upTo = kAfterHeaders, .then = Answer::Close}},
        {"closed in mid-body", {.upTo = kInBody, .then = Answer::Close}},
        {"closed before the last byte", {.upTo = kLastByte, .then = Answer::Close}},
        {"reset at once", {.upTo = kAtOnce, .then = Answer::Reset}},
        {"reset in the headers", {.upTo = kInHeaders, .then = Answer::Reset}},
        {"reset in mid-body", {.upTo = kInBody, .then = Answer::Reset}},
        {"dripping", {.drip = 30}},

        {"body longer than its length", {.lengthError = -1000}},
        {"body shorter than its length", {.lengthError = 1000, .then = Answer::Close}},
        {"no length", {.length = "", .then = Answer::Close}},
        {"no length, reset in mid-body", {.length = "", .upTo = kInBody, .then = Answer::Reset}},
        {"chunked", {.chunked = true}},
        {"chunked, closed in mid-body", {.chunked = true, .upTo = kInBody, .then = Answer::Close}},
        {"chunked, broken size",
         {.headers = "Transfer-Encoding: chunked\r\n", .length = "", .body = "nonsense\r\n"}},
        {"length 0 with a body", {.length = "0", .then = Answer::Close}},
        {"length of 5 GB", {.length = "5000000000", .then = Answer::Close}},
        {"largest length", {.length = "9223372036854775807", .then = Answer::Close}},
        {"length too large to hold", {.length = "9223372036854775808", .then = Answer::Close}},
        {"negative length", {.length = "-5", .then = Answer::Close}},
        {"length in words", {.length = "many", .then = Answer::Close}},

        {"range ignored", {.status = "200 OK"}},
        {"range ignored, empty", {.status = "200 OK", .body = ""}},
        {"wrong range",
         {.status = "206 Partial Content", .headers = "Content-Range: bytes 5-99999/100000\r\n"}},
        {"206 without a range", {.status = "206 Partial Content"}},
        {"404 with a length", {.status = "404 Not Found", .body = "not here"}},
        {"404 without a length",
         {.status = "404 Not Found", .length = "", .body = "not here", .then = Answer::Close}},
        {"416", {.status = "416 Range Not Satisfiable", .body = "no such range"}},
        {"500", {.status = "500 Internal Server Error", .body = "broken"}},
        {"204", {.status = "204 No Content", .length = "", .body = ""}},
        {"304", {.status = "304 Not Modified", .length = "", .body = ""}},
        {"redirect", {.status = "302 Found", .headers = "Location: /elsewhere\r\n", .body = "moved"}},
        {"100 first", {.before = "HTTP/1.1 100 Continue\r\n\r\n"}},
        {"HTTP/1.0", {.version = "HTTP/1.0", .then = Answer::Close}},
        {"no headers at all", {.version = "", .then = Answer::Close}},
        {"gzip", {.headers = "Content-Encoding: gzip\r\n"}},
        {"endless header line", {.headers = "X-Flood: " + std::string(200'000, 'x') + "\r\n"}},
    };
    return all;
}
