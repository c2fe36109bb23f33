#include "Platform/SystemLog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <string>
#include <thread>

static std::string _Label(size_t capacity = 128)
{
    std::string label(capacity, '?');
    platform::GetThreadLabel(label.data(), capacity);
    return label.c_str();
}

// The label tells which piece of work a line comes from. The program's name does not, since every thread has it.
TEST(ThreadLabel, IsTheThreadsOwn)
{
    std::thread([] {
        pthread_setname_np(pthread_self(), "com.corvane.x.y");
        platform::SetThreadLabel((std::string(126, 'x') + "\xC3\xA4").c_str());
        EXPECT_EQ(_Label(), std::string(126, 'x')) << "half a character";
        platform::SetThreadLabel(nullptr);
        EXPECT_EQ(_Label(), "com.corvane.x.y");
    }).join();
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof name);
    pthread_setname_np(pthread_self(), "a script's"); // like the name of a main thread, whatever runs the script
    EXPECT_EQ(_Label(), "");
    std::thread([] { EXPECT_EQ(_Label(), ""); }).join();
    pthread_setname_np(pthread_self(), name);
}

TEST(SystemLog, LinesGoToWhoeverListensAndKeepErrno)
{
    static std::string heard;
    platform::SetLogSink([](int level, const char *line) { heard = std::to_string(level) + line, errno = EIO; });
    errno = E2BIG;
    platform::WriteSystemLog(3, "100% \n");
    platform::SetLogSink(nullptr);
    platform::WriteSystemLog(-1, "to the system log %s%n"); // not a level, and not a format
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(heard, "3100% \n");
}
