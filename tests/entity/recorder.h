// A notifiee of the sample Holder that records every callback as text, and
// the fixture of a Holder watched by one.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entitygen_sample/sample.h"

namespace EntityTest {

class Recorder : public Sample::Holder::Notifiee {
 public:
  explicit Recorder(std::vector<std::string>* log, std::string tag = "") : log_(log), tag_(std::move(tag)) {}
  void onFlag() override { add("flag"); }
  void onMode() override { add("mode"); }
  void onTicks() override { add("ticks"); }
  void onItem(const uint32_t& k) override { add("item " + std::to_string(k)); }
  void onSorted(const Kiv::Name& k) override { add("sorted " + k.stdString()); }
  void onLeaf(const Kiv::Name& k) override { add("leaf " + k.stdString()); }
  void onSpan() override { add("span"); }
  using Sample::Holder::NotifieeConst::onItem;
  using Sample::Holder::NotifieeConst::onLeaf;
  using Sample::Holder::NotifieeConst::onSorted;

 private:
  void add(const std::string& s) { log_->push_back(tag_ + s); }
  std::vector<std::string>* log_;
  std::string tag_;
};

using Log = std::vector<std::string>;

class HolderTest : public testing::Test {
 protected:
  void SetUp() override { rec.notifierIs(holder); }
  Kiv::Ptr<Sample::Holder> holder = Sample::HolderIs("h");
  Log log;
  Recorder rec{&log};
};

}  // namespace EntityTest
