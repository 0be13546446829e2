// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <pugixml.hpp>
#include <string>

// A length or place of a picture: two digits at most behind the point, no needless ones.
std::string svg_number(double value);

// An element of a picture that is being made. A handle: copies are the same element, which is the document's.
class Element {
 public:
  explicit Element(pugi::xml_node node) : node_(node) {}
  Element child(const char* name) { return Element(node_.append_child(name)); }
  Element& set(const char* name, const char* value) {
    node_.append_attribute(name).set_value(value);
    return *this;
  }
  Element& set(const char* name, const std::string& value) { return set(name, value.c_str()); }
  Element& set(const char* name, double value) { return set(name, svg_number(value)); }
  Element& say(const std::string& text) {
    node_.append_child(pugi::node_pcdata).set_value(text.c_str());
    return *this;
  }
  // What a pointer on it shows.
  Element& tip(const std::string& text) {
    child("title").say(text);
    return *this;
  }

 private:
  pugi::xml_node node_;
};
