// What the state-store tests share: an event loop of their own, a store
// with two managers on it, and a way to see the error of an operation.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Kiln/EventLoop.h"
#include "Ledger/EntityManager.h"
#include "ledger/LedgerTestTypes.h"

namespace LedgerTest {

class LedgerFixture : public testing::Test {
 protected:
  Kiln::ScopedEventLoop scoped;
  Kiln::Ptr<Ledger::Store> store = Kiln::newPtr<Ledger::Store>();
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(store);
  Kiln::Ptr<Ledger::EntityManager> serviceManager = Kiln::newPtr<Ledger::EntityManager>(store);

  // The store's whole content, to show that a failed operation changed nothing.
  Kiln::Json everything() const { return manager->read(""); }
};

// The text of the JsonError that `fn` throws, or "no error".
template <class Fn>
std::string errorOf(Fn fn) {
  try {
    fn();
  } catch (const Kiln::JsonError& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace LedgerTest
