// Tests on the fixed object name "/brisolaruntime3". CTest runs them one at a time
// (RESOURCE_LOCK), and each removes the object before and after itself. Anything else on the
// machine that publishes under that name (a running service) disturbs them.

#include <gtest/gtest.h>
#include <string>

#include "brisola/runtime/control_store.hpp"
#include "brisola_runtime_support.h"
#include "shm_test_support.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

namespace store = RuntimeControlStoreV3;

const std::string fixedName(store::sharedMemoryName);

class FixedObject : public ::testing::Test {
 protected:
  void SetUp() override { BrisolaShmUnlink(fixedName.c_str()); }
  void TearDown() override { BrisolaShmUnlink(fixedName.c_str()); }
};

TEST_F(FixedObject, ReadsWhatTheServicePublished) {
  ConfigSnapshot snapshot;
  snapshot.devices = {testing::stereoDevice("studio", "Studio"), testing::stereoDevice("p", "P")};
  RuntimePublisher::publish(snapshot);
  EXPECT_EQ(store::read(), RuntimeDeviceControls::forDocument(snapshot));
  EXPECT_EQ(testing::ShmObject(fixedName).size(), 65536u);
}

}  // namespace
}  // namespace brisola
