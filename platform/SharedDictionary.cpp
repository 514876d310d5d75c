#include "kelo/SharedDictionary.h"

#include <iterator>
#include <utility>

namespace kelo {

SharedDictionary::SharedDictionary() : entries_(std::make_shared<const Value::Dictionary>()) {}

Value SharedDictionary::objectForKey(std::string_view key) const {
  const std::shared_ptr<const Value::Dictionary> now = snapshot();
  const auto it = now->find(key);
  return it != now->end() ? it->second : Value();
}

std::shared_ptr<const Value::Dictionary> SharedDictionary::snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

void SharedDictionary::merge(std::vector<Value::Dictionary::value_type> entries) {
  if (entries.empty()) return;
  std::lock_guard<std::mutex> update(updateMutex_);
  const std::shared_ptr<const Value::Dictionary> before = snapshot();
  // The present entries first, so that an added entry with an equal key replaces them.
  entries.insert(entries.begin(), before->begin(), before->end());
  auto next = std::make_shared<const Value::Dictionary>(
      Value::Dictionary::fromUnsorted(std::move(entries)));
  std::lock_guard<std::mutex> lock(mutex_);
  entries_ = std::move(next);
}

}  // namespace kelo
