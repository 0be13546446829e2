// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

class ParentalRating {
 public:
  ParentalRating(const uint8_t* const buffer);

  const std::string& getCountryCode() const { return country_; }
  uint8_t getRating() const { return rating_; }  // as broadcast: the age is three more

 private:
  std::string country_;
  uint8_t rating_;
};

using ParentalRatingList = std::list<ParentalRating*>;
using ParentalRatingIterator = ParentalRatingList::iterator;
using ParentalRatingConstIterator = ParentalRatingList::const_iterator;

// 0x55 (EN 300 468, 6.2.28).
class ParentalRatingDescriptor : public Descriptor {
 public:
  ParentalRatingDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ParentalRatingDescriptor() override;

  const ParentalRatingList* getParentalRatings() const;

 private:
  dvbsi_own::Lazy_list<ParentalRating> ratings_;
};
