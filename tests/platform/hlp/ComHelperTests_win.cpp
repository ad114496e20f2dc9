#include "hlp/ComHelper.h"

#include <windows.h>

#include <objbase.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

class ComHelperTests : public testing::Test {
 protected:
  template <typename Body>
  static void OnFreshThread(Body body) {
    std::thread(body).join();
  }
};

TEST_F(ComHelperTests, InitsAreBalancedOnTheirThread) {
  OnFreshThread([] {
    EXPECT_EQ(hlp::ComHelper::ThreadInit(), 0);
    EXPECT_EQ(hlp::ComHelper::ThreadInit(), 0);
    // The thread is in the multithreaded apartment now.
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
    hlp::ComHelper::ThreadDeinit();
    hlp::ComHelper::ThreadDeinit();
    hlp::ComHelper::ThreadDeinit();  // unbalanced: must not release anything
    // Fully released: the thread may choose its apartment afresh.
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    CoUninitialize();
  });
}

}  // namespace
