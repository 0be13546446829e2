// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// The age for which a country's broadcaster thinks an event is fit.
class ParentalRating {
 public:
  ParentalRating(const uint8_t* const buffer);

  const std::string& getCountryCode() const { return country_; }
  // 0 is undefined, 1 to 15 are the age less three, the others are the broadcaster's own.
  uint8_t getRating() const { return rating_; }

 private:
  std::string country_;
  uint8_t rating_;
};

using ParentalRatingList = std::list<ParentalRating*>;
using ParentalRatingIterator = ParentalRatingList::iterator;
using ParentalRatingConstIterator = ParentalRatingList::const_iterator;

// Parental rating descriptor, 0x55 (EN 300 468, 6.2.28). Valid when its length is a multiple of 4.
class ParentalRatingDescriptor : public Descriptor {
 public:
  ParentalRatingDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ParentalRatingDescriptor() override;

  const ParentalRatingList* getParentalRatings() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<ParentalRating> ratings_;
};
