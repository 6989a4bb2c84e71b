#pragma once

#include <cstdint>

/// The kinds of transfer events. Each value is a single bit.
enum CurlMessageType : std::int32_t {
    CurlMessageTypeData = 1,         ///< bytes were written; or the transfer was stopped (0 bytes) or failed
    CurlMessageTypeLength = 2,       ///< the probe succeeded; carries the content length
    CurlMessageTypeFinished = 4,     ///< the last byte was written
    CurlMessageTypeStop = 8,         ///< the user asks to stop
    CurlMessageTypeStarted = 16,     ///< the body transfer begins
    CurlMessageTypeProbeFailed = 32, ///< the probe failed or found no length
};

/// The name under which records are posted on the default notification center, as the notification's object.
inline constexpr char kCurlCallbackMessage[] = "CurlCallbackMessage";

/// One transfer event for the panel. One thread creates, fills, posts and destroys it; delivery is
/// synchronous on that thread, and the observer must not keep the record. Every field starts at zero.
class CurlMessage {
  public:
    /// The event's quantity: bytes just written, the content length in bytes, 0, or -1 for none.
    [[nodiscard]] std::int64_t iMessage() const { return iMessage_; }
    void setIMessage(std::int64_t quantity) { iMessage_ = quantity; }

    /// The transfer's token; -1 for records that belong to no transfer, 0 when not set.
    [[nodiscard]] std::int64_t identifier() const { return identifier_; }
    void setIdentifier(std::int64_t token) { identifier_ = token; }

    /// When the record was posted, in seconds since 1970-01-01 00:00 UTC.
    [[nodiscard]] double timestamp() const { return timestamp_; }
    void setTimestamp(double seconds) { timestamp_ = seconds; }

    /// 0 for success, -1 for "failed" or "does not exist"; for a failed probe, libcurl's result code.
    [[nodiscard]] std::int32_t status() const { return status_; }
    void setStatus(std::int32_t status) { status_ = status; }

    /// A CurlMessageType; other values are ignored by the panel.
    [[nodiscard]] std::int32_t itype() const { return itype_; }
    void setItype(std::int32_t type) { itype_ = type; }

  private:
    std::int64_t iMessage_ = 0;
    std::int64_t identifier_ = 0;
    double timestamp_ = 0;
    std::int32_t status_ = 0;
    std::int32_t itype_ = 0;
};

/// Stamps the record with the current time and posts it. Returns when the panel has handled it. Any thread.
void postCurlMessage(CurlMessage& message);
