#include "brisola/runtime/control_store.hpp"

namespace brisola {

namespace RuntimeControlStoreV3 {

void publish(const ConfigSnapshot& snapshot) {
  publish(RuntimeDeviceControls::forDocument(snapshot));
}

}  // namespace RuntimeControlStoreV3

namespace RuntimePublisher {
void publish(const ConfigSnapshot& snapshot) {
  RuntimeControlStoreV3::publish(snapshot);
}
}  // namespace RuntimePublisher

}  // namespace brisola
