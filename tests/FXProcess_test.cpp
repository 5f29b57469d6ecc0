#include "ZuUtils/FXProcess.h"

#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>

TEST(FXProcess, IsTheCallingProcessByDefault) {
  const FXProcess process;
  EXPECT_EQ(process.getProcessId(), getpid());
  EXPECT_EQ(process.getStartTime().GetTicks(), 0);
  EXPECT_EQ(process.getName(), "");
  EXPECT_FALSE(process.isSystem());
}

TEST(FXProcess, IdsBelowOneMeanTheCallingProcess) {
  for (const long long id : {0LL, -1LL, LLONG_MIN}) {
    EXPECT_EQ(FXProcess(id).getProcessId(), getpid()) << id;
  }
  for (const long long id : {1LL, 4294967296LL, LLONG_MAX}) {
    EXPECT_EQ(FXProcess(id).getProcessId(), id);
  }
}

TEST(FXProcess, KeepsWhatItIsGiven) {
  const FXProcess process(7, CTimeStamp(1234), "daemon", true);
  EXPECT_EQ(process.getProcessId(), 7);
  EXPECT_EQ(process.getStartTime().GetTicks(), 1234);
  EXPECT_EQ(process.getName(), "daemon");
  EXPECT_TRUE(process.isSystem());
  EXPECT_EQ(FXProcess(0, CTimeStamp(), nullptr, false).getName(), "");
}

TEST(FXProcess, IsTheChildAfterFork) {
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) _exit(FXProcess().getProcessId() == getpid() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}
