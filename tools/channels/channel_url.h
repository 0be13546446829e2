// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/channels/list_format.h"

// Everything but letters, digits and "-._~" as %XX (RFC 3986, 2.1).
std::string percent_encoded(std::string_view text);

// Throws Failure when the template of links has a placeholder that there is none of, or a character that no link has.
void check_url_template(const std::string& url);

// The link of a channel: its values in place of {number}, {name}, {id}, {channel}, {service_id}, {transport_stream_id},
// {original_network_id}, {network_id} and {frequency}, percent-encoded. Nothing when the template wants its number and
// it has none. REQUIRES: check_url_template().
std::optional<std::string> channel_url(const std::string& url, const List_entry& channel);
