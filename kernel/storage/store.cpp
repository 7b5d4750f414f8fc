#include "store.h"

#include "direct_store.h"

namespace bt {

namespace {
Store* current = nullptr;
}  // namespace

Store& TheStore() { return current != nullptr ? *current : DirectStore(); }
void UseStore(Store& store) { current = &store; }

}  // namespace bt
