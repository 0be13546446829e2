#pragma once

// What the sources of Siparse share.

#include <cstdint>

#include <dvbsi++/descriptor.h>

// Sets a variable for the life of this object.
template <typename T>
class Scoped_value {
 public:
  Scoped_value(T& variable, T value) : variable_(variable), before_(variable) { variable = value; }
  ~Scoped_value() { variable_ = before_; }
  Scoped_value(const Scoped_value&) = delete;
  Scoped_value& operator=(const Scoped_value&) = delete;

 private:
  T& variable_;
  const T before_;
};

// The descriptor as the class that its tag stands for; null when it is another.
template <typename D>
const D* as(const Descriptor* descriptor) {
  return dynamic_cast<const D*>(descriptor);
}

// Frees the elements, too.
template <typename List>
void delete_all(List& list) {
  for (auto* element : list)
    delete element;
  list.clear();
}
