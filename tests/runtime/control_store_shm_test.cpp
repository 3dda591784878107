// Tests on the fixed object name "/brisolaruntime3". CTest runs them one at a time
// (RESOURCE_LOCK), and each removes the object before and after itself. Anything else on the
// machine that publishes under that name (a running service) disturbs them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "brisola/runtime/control_store.hpp"
#include "brisola_runtime_support.h"
#include "shm_test_support.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

namespace store = RuntimeControlStoreV3;
using testing::sampleControls;

const std::string fixedName(store::sharedMemoryName);

class FixedObject : public ::testing::Test {
 protected:
  void SetUp() override { BrisolaShmUnlink(fixedName.c_str()); }
  void TearDown() override { BrisolaShmUnlink(fixedName.c_str()); }
};

TEST_F(FixedObject, NothingPublishedYetReadsAsOpenFailedENOENT) {
  try {
    store::read();
    ADD_FAILURE() << "read succeeded";
  } catch (const RuntimeControlStoreError& error) {
    EXPECT_EQ(error, RuntimeControlStoreError::openFailed(2));
    EXPECT_STREQ(error.what(), "Could not open Brisola runtime shared memory: errno 2.");
  }
}

TEST_F(FixedObject, PublishingADocumentWritesTheNamedObject) {
  ConfigSnapshot snapshot;
  snapshot.devices.push_back(testing::stereoDevice("studio", "Studio"));
  snapshot.devices.push_back(testing::stereoDevice("podcast", "Podcast"));
  RuntimePublisher::publish(snapshot);

  EXPECT_EQ(store::read(), store::controls(snapshot));
  testing::ShmObject object(fixedName);
  EXPECT_EQ(object.size(), 65536u);
  EXPECT_EQ(object.u32(16), 2u);

  store::publish(ConfigSnapshot::empty());
  EXPECT_EQ(object.u32(16), 0u);
  EXPECT_TRUE(store::read().empty());
}

}  // namespace
}  // namespace brisola
