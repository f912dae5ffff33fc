// CloseErrorText: CloseInfo's error as text, by the kind of error each reason carries.
#include <errno.h>
#include <netdb.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "net/connector_handler.h"

namespace {

using QUOLNET::CloseErrorText;
using QUOLNET::CloseInfo;
using QUOLNET::CloseReason;

CloseInfo Info(CloseReason reason, int error) {
    CloseInfo info;
    info.reason = reason;
    info.error = error;
    return info;
}

// Regression: readme_client printed strerror() of a resolver's EAI code ("Unknown error -2").
TEST(CloseErrorText, SaysWhatEachReasonsErrorMeans) {
    EXPECT_STREQ("-", CloseErrorText(Info(CloseReason::kPeerClosed, 0)));
    EXPECT_STREQ(strerror(ECONNRESET), CloseErrorText(Info(CloseReason::kReset, ECONNRESET)));
    EXPECT_STREQ(strerror(ECONNREFUSED), CloseErrorText(Info(CloseReason::kDialRefused, ECONNREFUSED)));
    EXPECT_STREQ(gai_strerror(EAI_NONAME), CloseErrorText(Info(CloseReason::kDialResolveFailed, EAI_NONAME)));
    EXPECT_STREQ("parser code -1", CloseErrorText(Info(CloseReason::kFramingError, -1)));
}

}  // namespace
