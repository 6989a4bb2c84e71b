#include "transfer/CurlMessage.h"

#include "platform/NotificationCenter.h"

#include <chrono>

void postCurlMessage(CurlMessage& message) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    message.setTimestamp(now.count());
    NotificationCenter::defaultCenter().postNotification(kCurlCallbackMessage, &message);
}
