// What the installed library is told when a context is opened; its entry is the test's here.

#include <gtest/gtest.h>

#include "libtcmu/LibtcmuApi.h"

/// The library's record of a handler.
struct Handler {
    const char *name, *subtype, *description;
    void* context;
    bool (*checkConfig)(const char* config, char** reason);
    int (*reconfigure)(LibDevice* dev, void* change);
    void* updateLogDirectory;
    int (*added)(LibDevice* dev);
    void (*removed)(LibDevice* dev);
    void *own, *connection;
};
static std::vector<Handler> g_handlers;

extern "C" void* tcmulib_initialize(const Handler* handlers, size_t count) {
    g_handlers.assign(handlers, handlers + count);
    return count > 0 ? &g_handlers : nullptr;
}

TEST(LibraryTest, EachHandlerAsksTheCallbacksAndTakesNoNewSize) {
    LibtcmuApi::Callbacks callbacks;
    callbacks.added = [](LibDevice* dev) { return dev == nullptr ? -7 : 0; };
    size_t removed = 0;
    callbacks.removed = [&](LibDevice* /*dev*/) { ++removed; };
    callbacks.checkConfig = [](const std::string& config, std::string& reason) {
        reason = "because";
        return config == "good";
    };
    EXPECT_EQ(RealLibtcmuApi().Initialize({}, {}), -ENODEV);
    ASSERT_EQ(RealLibtcmuApi().Initialize({{"One", "any"}, {"two", "any"}}, callbacks), 0);
    EXPECT_STREQ(g_handlers.at(1).subtype, "two");
    for (const Handler& handler : g_handlers) {
        char* reason = nullptr;
        EXPECT_TRUE(handler.checkConfig("good", nullptr));
        EXPECT_FALSE(handler.checkConfig("bad", &reason));
        EXPECT_STREQ(reason, "because");
        free(reason);
        EXPECT_EQ(handler.added(nullptr), -7);
        handler.removed(nullptr);
        EXPECT_EQ(handler.reconfigure(nullptr, nullptr), -EOPNOTSUPP) << "nobody would do it";
    }
    EXPECT_EQ(removed, g_handlers.size());
}
