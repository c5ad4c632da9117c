// SPDX-License-Identifier: Apache-2.0
// The running kernel's version and the options that it was built with.
#ifndef KERNEL_FACTS_H
#define KERNEL_FACTS_H

#include <string>
#include <string_view>

#include "samplers/file_reader.h"

enum class kernel_option { on, module, off, unknown };

class kernel_facts {
 public:
  // `reader` must live as long as this.
  explicit kernel_facts(const samplers::file_reader& reader);

  const samplers::file_reader& machine;

  // As uname(1) -r prints it; empty when it is not known.
  const std::string release;

  // False when the version is not known.
  bool is_before(int major, int minor) const;

  // "CONFIG_PSI", by /proc/config.gz or /boot/config-RELEASE, which are read when first asked.
  // Unknown where neither can be read.
  kernel_option find(std::string_view option);

 private:
  bool config_read = false;
  std::string config;  // text; empty: there is none
};

#endif
