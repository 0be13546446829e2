// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/log.h"

#include "kelvo/kelvo.h"
#include "support/messages.h"

using support::messages_at;

namespace {

using Heard = std::vector<std::pair<int, std::string>>;

class Message_listener_test : public testing::Test {
 protected:
  ~Message_listener_test() override { Kelvo::set_message_listener({}); }

  void listen(int level, bool print) { Kelvo::set_message_listener({&hear, &heard_, level, print}); }

  static void hear(void* data, int level, const char* text) { static_cast<Heard*>(data)->emplace_back(level, text); }

  Heard heard_;
};

TEST_F(Message_listener_test, gets_level_and_text_as_they_would_be_printed) {
  listen(VERB_WARNING, true);
  EXPECT_EQ(messages_at(VERB_WARNING,
                        [] {
                          KLOG(VERB_WARNING, "WARNING: part of %d ", 2);
                          KLOG(VERB_ERROR, "ERROR: %s\n", "whole");
                        }),
            "WARNING: part of 2 ERROR: whole\n");
  EXPECT_EQ(heard_, (Heard{{VERB_WARNING, "WARNING: part of 2 "}, {VERB_ERROR, "ERROR: whole\n"}}));
}

void log_progress_and_trace() {
  KLOG(VERB_PROGRESS, "progress\n");
  KLOG(VERB_TRACE, "trace\n");
}

TEST_F(Message_listener_test, has_a_level_of_its_own) {
  listen(VERB_PROGRESS, true);
  EXPECT_EQ(messages_at(VERB_WARNING, log_progress_and_trace), "");
  EXPECT_EQ(heard_, (Heard{{VERB_PROGRESS, "progress\n"}}));
}

TEST_F(Message_listener_test, below_the_verbosity_leaves_what_is_printed) {
  listen(VERB_ERROR, true);
  EXPECT_EQ(messages_at(VERB_PROGRESS, log_progress_and_trace), "progress\n");
  EXPECT_EQ(heard_, Heard{});
}

// Of every kind.
void log_everything() {
  KLOG(VERB_TRACE, "trace\n");
  KLOG(VERB_ERROR, "ERROR: x\n");
  KLOG_ALWAYS("always\n");
  errno = EBADF;
  kelvo_log::print_errno("Select: ");
}

TEST_F(Message_listener_test, can_keep_everything_from_standard_error) {
  listen(VERB_ERROR, false);
  EXPECT_EQ(messages_at(VERB_TRACE, log_everything), "");
  EXPECT_EQ(
      heard_,
      (Heard{{VERB_ERROR, "ERROR: x\n"}, {VERB_ALWAYS, "always\n"}, {VERB_ALWAYS, "Select: : Bad file descriptor\n"}}));
}

TEST_F(Message_listener_test, that_is_null_changes_nothing) {
  Kelvo::set_message_listener({nullptr, nullptr, VERB_TRACE, true});
  EXPECT_EQ(messages_at(-5, log_everything), "always\nSelect: : Bad file descriptor\n");
}

TEST_F(Message_listener_test, gets_long_texts_whole) {
  const std::string text(5000, 'x');
  listen(VERB_ERROR, false);
  KLOG(VERB_ERROR, "<%s>", text.c_str());
  ASSERT_EQ(heard_.size(), 1U);
  EXPECT_EQ(heard_[0].second, "<" + text + ">");
}

TEST_F(Message_listener_test, sees_errno_and_leaves_it) {
  listen(VERB_ERROR, false);
  errno = ENOSPC;
  kelvo_log::print_errno("what");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(heard_, (Heard{{VERB_ALWAYS, "what: No space left on device\n"}}));
}

TEST(Errno_message, is_what_perror_prints_at_every_verbosity) {
  EXPECT_EQ(messages_at(-1, log_everything), "always\nSelect: : Bad file descriptor\n");
}

}  // namespace
