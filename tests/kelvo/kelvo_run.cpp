// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/kelvo_run.h"

namespace {

// Change callbacks have no data; one test runs at a time.
Protocol* change_protocol = nullptr;

void on_change(int code) {
  change_protocol->add("change " + std::to_string(code));
}

void on_end(void* data, const Scan_end& end) {
  static_cast<Protocol*>(data)->add(line_of(end));
}

constexpr std::chrono::minutes PATIENCE{20};  // of the adapter's time

}  // namespace

std::string line_of(const Scan_end& end) {
  const char* const stages[] = {"none", "PMT", "PAT", "EIT"};
  const char* const outcomes[] = {"complete", "timed out", "no stream", "no demux", "replaced"};
  std::string line = "end " + std::to_string(end.freq) + " " + std::to_string(end.channel) + " " + stages[end.stage] +
                     " " + outcomes[end.outcome];
  if (end.merged)
    line += " merged " + std::to_string(end.changes);
  if (!end.missing.empty())
    line += " missing";
  for (const Missing_table& missing : end.missing) {
    char text[40];
    std::snprintf(text, sizeof text, " %d/%x", missing.pid, static_cast<unsigned>(missing.table_id));
    line += text;
  }
  if (end.error.code != 0)
    line += " error " + std::to_string(end.error.code) + " " + end.error.operation;
  return line;
}

void Protocol::add(const std::string& line) {
  std::function<void()> action;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    const auto found =
        std::find_if(actions_.begin(), actions_.end(), [&](const auto& waiting) { return waiting.first == line; });
    if (found != actions_.end()) {
      action = found->second;
      actions_.erase(found);
    }
  }
  if (action)  // before the line: who has waited for it may end the test
    action();
  {
    const std::lock_guard<std::mutex> lock(lock_);
    lines_.push_back(line);
  }
  said_.notify_all();
}

std::string Protocol::text(const std::vector<std::string>& words) const {
  const std::lock_guard<std::mutex> lock(lock_);
  std::string text;
  for (const std::string& line : lines_) {
    const std::string first = line.substr(0, line.find(' '));
    if (words.empty() || std::find(words.begin(), words.end(), first) != words.end())
      text += line + "\n";
  }
  return text;
}

size_t Protocol::count(const std::string& line) const {
  const std::lock_guard<std::mutex> lock(lock_);
  return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line));
}

bool Protocol::wait_for(const std::string& line, size_t times) {
  std::unique_lock<std::mutex> lock(lock_);
  return said_.wait_for(lock, PATIENCE,
                        [&] { return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line)) >= times; });
}

void Protocol::on(const std::string& line, std::function<void()> action) {
  const std::lock_guard<std::mutex> lock(lock_);
  actions_.emplace_back(line, std::move(action));
}

void Gate::pass() {
  std::unique_lock<std::mutex> lock(lock_);
  reached_ = true;
  changed_.notify_all();
  changed_.wait_for(lock, PATIENCE, [this] { return open_; });
}

bool Gate::wait_until_reached() {
  std::unique_lock<std::mutex> lock(lock_);
  return changed_.wait_for(lock, PATIENCE, [this] { return reached_; });
}

void Gate::open() {
  const std::lock_guard<std::mutex> lock(lock_);
  open_ = true;
  changed_.notify_all();
}

void Kelvo_run::SetUp() {
  ASSERT_TRUE(support::under_softdvb());
  change_protocol = &protocol_;
  database_ = std::make_unique<Sdbl>(folder_.file("dvb.db").c_str());
}

void Kelvo_run::TearDown() {
  kelvo_.reset();
  database_.reset();
  Kelvo::set_message_listener({});
  support::softdvb_control("clear faults");
}

void Kelvo_run::make(bool tuner) {
  kelvo_ = std::make_unique<Kelvo>(0, CONNECTOR, TYPE, database_.get(), tuner, on_change);
  kelvo_->set_scan_listener(on_end, &protocol_);
}

void* Kelvo_run::data(const std::string& name) {
  names_.push_back(std::make_unique<Named>(Named{&protocol_, name}));
  return names_.back().get();
}

void Kelvo_run::done(void* data, int result) {
  const auto* named = static_cast<Named*>(data);
  named->protocol->add("done " + named->name + " " + std::to_string(result));
}

void Kelvo_run::ask(const std::string& name, int result) {
  EXPECT_EQ(request(name), -1);
  EXPECT_TRUE(protocol_.wait_for("done " + name + " " + std::to_string(result)));
}

void Kelvo_run::make_and_ask(const std::string& name, int result) {
  make();
  ask(name, result);
}

void Kelvo_run::silence(std::initializer_list<const char*> tables) {
  for (const std::string table : tables)
    support::softdvb_control("adapter 0 section " + table + " = silence");
}

int Kelvo_run::number_of(const std::string& sql) {
  int value = -1;
  (void)database_->sql_get_int(&value, 0, "%s", sql.c_str());
  return value;
}

bool Kelvo_run::wait_for_sql(const std::string& sql) {
  for (int i = 0; i < 6000; ++i) {
    if (number_of(sql) > 0)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return false;
}
