#include "service/kelo_bpf_event_manager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {
namespace {

using Records = std::vector<std::string>;

class EventManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int fd : {3, 4, 5}) queues.try_emplace(fd);
    MutexLock lock(EventManager::keloRawEventManagerLock);
    registry->setClientQueues(&queues);
  }

  std::string Publish(int32_t type, const std::string& tail = "") {
    std::string record = std::string(reinterpret_cast<const char*>(&type), sizeof(type)) + tail;
    EXPECT_EQ(registry->AppendEvent(record.data(), static_cast<unsigned int>(record.size())), 0);
    return record;
  }

  // Records queued for fd, oldest first; each must be an event package.
  Records Queued(int fd) {
    BufferState buffer;
    buffer.allocate(4096);
    while (queues.at(fd).fillNextIpcPackageToBuffer(&buffer)) {
    }
    Records records;
    for (uint32_t header[3]; !buffer.empty();) {
      memcpy(header, buffer.read(sizeof(header)), sizeof(header));
      EXPECT_EQ(header[1], IPC_PACKAGE_TYPE_EVENT);
      records.emplace_back(buffer.read(header[2]), header[2]);
    }
    return records;
  }

  EventManager* registry = EventManager::GetInstance();
  ClientPackageManagers queues;
};

TEST_F(EventManagerTest, SubscribersGetEachRecordOnceByteForByteInPublishOrderUntilTheyLeave) {
  for (int fd : {4, 3, 3}) registry->AddObserverEvent(fd, 50001);  // any int is a type; subscribed once
  registry->AddObserverEvent(4, 6);
  registry->AddObserverEvent(5, 7);
  registry->DelObserverEvent(3, 6);  // never subscribed
  registry->DelObserverEvent(5, 5);
  const Records published = {Publish(50001, std::string("\0\1\2", 3)), Publish(50001, std::string(200, '\xff')),
                             Publish(50001)};
  EXPECT_EQ(Queued(3), published);
  EXPECT_EQ(Queued(4), published);
  EXPECT_TRUE(Queued(5).empty());

  registry->DelObserverEvent(3, 50001);
  registry->EraseObserver(4);
  registry->EraseObserver(6);  // no subscriptions at all
  Publish(50001);              // every subscriber of the type is gone
  Publish(6);
  for (int fd : {3, 4, 5}) EXPECT_TRUE(Queued(fd).empty());
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
