#include "utils/kelo_bpf_ipc_package.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"
#include "utils/kelo_bpf_ipc_package_handler.h"

namespace {

using kelo_test::Frame;
using kelo_test::U32;
using ::testing::ElementsAre;

BufferState Holding(size_t size, const std::string& bytes) {
  BufferState state;
  state.allocate(size);
  EXPECT_TRUE(state.write(bytes.data(), bytes.size()));
  return state;
}

// Frames checked and dispatched out of a read buffer; damage is recorded in
// the error log under the sandbox's /data.
class PackageHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::ResetErrorLog();
  }
  // Records every dispatched package as "<fd>:<type>:<payload>".
  IpcPackageHandlerFunc recorder(uint32_t type, int result) {
    return [this, type, result](int fd, char* data, uint32_t size) {
      seen.push_back(std::to_string(fd) + ":" + std::to_string(type) + ":" + std::string(data, size));
      return result;
    };
  }
  std::vector<std::string> seen;
};

TEST_F(PackageHandlerTest, FrameFillingTheWholeBufferFitsOneMoreByteIsDamage) {
  uint32_t headerSize = 0, packageSize = 0;
  BufferState exact = Holding(64, U32(60) + std::string(60, 'a'));
  EXPECT_TRUE(CheckIpcPackageComplete(&exact, &headerSize, &packageSize));

  kelo_test::LogCapture log;
  BufferState over = Holding(64, U32(61) + "abc");
  EXPECT_FALSE(CheckIpcPackageComplete(&over, &headerSize, &packageSize));
  EXPECT_EQ(over.bufferDataCursor, 0u) << "damage drops the buffer";
  EXPECT_TRUE(
      log.contains("Ipc package too big or damage, clear buffer. packageSize: 65, cursor: 0, data: 7, "
                   "bufferSize: 64"));
  EXPECT_TRUE(log.contains("Buffer hexdump: 3d 00 00 00 61 62 63 "));
  EXPECT_EQ(kelo_test::ErrorLogCount(Kelo::Bpf::ERROR_CODE_PACKAGE_DAMAGED), 1);
  EXPECT_THAT(kelo_test::ErrorLogText(),
              ::testing::HasSubstr("Error: Ipc package damage, packageSize: 65, cursor: 0, data: 7, bufferSize: 64, "
                                   "Buffer hexdump: 3d 00 00 00 61 62 63 "));
}

TEST_F(PackageHandlerTest, DispatchesWholeFramesAndKeepsTheRest) {
  IpcPackageHandler handler({{2, recorder(2, 0)}, {3, recorder(3, -1)}});
  const std::string third = Frame(2, "third");
  BufferState state = Holding(256, Frame(2, "one") + Frame(2, "") + third.substr(0, 7));
  EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(7, &state));
  EXPECT_THAT(seen, ElementsAre("7:2:one", "7:2:"));
  EXPECT_EQ(state.bufferDataCursor - state.bufferCursor, 7u) << "the half frame stays";

  const std::string rest = third.substr(7) + Frame(3, "stop") + Frame(9, "unknown") + Frame(2, "last");
  state.write(rest.data(), rest.size());
  EXPECT_FALSE(handler.handleAllIpcPackageInBuffer(7, &state)) << "a handler failed";
  EXPECT_THAT(seen, ElementsAre("7:2:one", "7:2:", "7:2:third", "7:3:stop"));
  EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(7, &state)) << "the rest on the next call";
  EXPECT_THAT(seen, ElementsAre("7:2:one", "7:2:", "7:2:third", "7:3:stop", "7:2:last"));
}

// The sizes are the peer's: a disagreement is refused with -1 and logged as
// the failed check at error priority, never fatal; unknown types are
// dropped without the table growing.
TEST_F(PackageHandlerTest, MismatchedSizeFieldIsRefusedAndUnknownTypesLeaveTheTableAsItIs) {
  IpcPackageHandler handler({{2, recorder(2, 0)}});
  kelo_test::LogCapture log;
  std::string package = U32(2) + U32(5) + "abcd";  // says 5, carries 4
  EXPECT_EQ(handler.handleSecondIpcPackage(1, package.data(), package.size()), -1);
  std::string tooShort = U32(2);
  EXPECT_EQ(handler.handleSecondIpcPackage(1, tooShort.data(), tooShort.size()), -1);
  EXPECT_EQ(log.count("BpfUtils E"), 2);
  EXPECT_EQ(log.count("Check failed: packagePtr->size == size - sizeof(KeloIpcSecondLevelPackageHeader)\n"), 2);
  EXPECT_TRUE(seen.empty());

  for (uint32_t type = 3; type < 1003; ++type) {
    std::string unknown = U32(type) + U32(0);
    EXPECT_EQ(handler.handleSecondIpcPackage(1, unknown.data(), unknown.size()), 0);
  }
  EXPECT_EQ(handler.handlerCount(), 1u);
}

// Routing over a real connection, ids from 0 and repeated answers are in the
// UnixIpcManager tests; here the table's own rules.
TEST(IpcReqCallBackManagerTest, AddingAgainReplacesAndWithdrawnOrEmptyCallbacksTakeNoCall) {
  IpcReqCallBackManager manager;
  std::vector<std::string> calls;
  const auto recorder = [&calls](const std::string& tag) {
    return [&calls, tag](uint32_t reqId, int result, char* data, uint32_t dataSize) {
      calls.push_back(tag + ":" + std::to_string(reqId) + ":" + std::to_string(result) + ":" +
                      std::string(data, dataSize));
      return 0;
    };
  };
  EXPECT_TRUE(manager.addIpcReqCallBack(1, recorder("first")));
  EXPECT_FALSE(manager.addIpcReqCallBack(1, recorder("second"))) << "replaces";
  EXPECT_TRUE(manager.addIpcReqCallBack(2, nullptr));
  EXPECT_TRUE(manager.addIpcReqCallBack(3, recorder("gone")));
  EXPECT_TRUE(manager.delIpcReq(3));
  EXPECT_FALSE(manager.delIpcReq(3));

  // Responses as they sit in a read buffer: at an odd offset, header then data.
  kelo_test::LogCapture log;
  const auto answer = [&](uint32_t reqId, int32_t result, const std::string& data) {
    std::string bytes =
        "!" + U32(reqId) + U32(static_cast<uint32_t>(result)) + U32(static_cast<uint32_t>(data.size())) + data;
    return manager.handleReqCallBack(reinterpret_cast<KeloRespIpcPackage*>(&bytes[1]));
  };
  EXPECT_TRUE(answer(1, -1, "data"));
  EXPECT_TRUE(answer(2, 0, "")) << "empty callback";
  EXPECT_FALSE(answer(3, 0, "")) << "withdrawn";
  EXPECT_THAT(calls, ElementsAre("second:1:-1:data"));
  EXPECT_EQ(log.count("[IRCB Manager] Unknow request callback functuin: reqId: 3\n"), 1);
}

}  // namespace
