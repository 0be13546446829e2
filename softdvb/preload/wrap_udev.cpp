// libudev, answered here: programs that look for adapters through it find ours and nothing else. Objects are plain
// records behind the library's opaque pointers; what a program may forget to release is small.
#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "softdvb/model/devices.h"
#include "softdvb/model/real.h"

using namespace softdvb;

struct udev {
  std::atomic<int> references{1};
};

struct udev_list_entry {
  std::string name;
  std::string value;
  udev_list_entry* next = nullptr;
};

struct udev_enumerate {
  std::atomic<int> references{1};
  udev* context = nullptr;
  bool dvb = true;
  std::vector<udev_list_entry> entries;
};

struct udev_device {
  std::atomic<int> references{1};
  udev* context = nullptr;
  int adapter = -1;  // -1: the bus device that all adapters sit on
  std::string type;  // "frontend", "demux", "dvr"
  std::string syspath;
  std::string sysname;
  std::string devnode;
  std::string number;
  udev_device* parent = nullptr;
};

struct udev_monitor {
  std::atomic<int> references{1};
  udev* context = nullptr;
  int fd = -1;
};

static const char* const CLASS_FOLDER = "/sys/class/dvb/";

template <typename T>
static T* refer(T* object) {
  if (object != nullptr)
    ++object->references;
  return object;
}

SOFTDVB_EXPORT udev* udev_new() {
  return new udev;
}
SOFTDVB_EXPORT udev* udev_ref(udev* u) {
  return refer(u);
}
SOFTDVB_EXPORT udev* udev_unref(udev* u) {
  if (u != nullptr && --u->references == 0)
    delete u;
  return nullptr;
}

SOFTDVB_EXPORT udev_enumerate* udev_enumerate_new(udev* u) {
  auto* e = new udev_enumerate;
  e->context = u;
  return e;
}
SOFTDVB_EXPORT udev_enumerate* udev_enumerate_ref(udev_enumerate* e) {
  return refer(e);
}
SOFTDVB_EXPORT udev_enumerate* udev_enumerate_unref(udev_enumerate* e) {
  if (e != nullptr && --e->references == 0)
    delete e;
  return nullptr;
}
SOFTDVB_EXPORT udev* udev_enumerate_get_udev(udev_enumerate* e) {
  return e->context;
}
SOFTDVB_EXPORT int udev_enumerate_add_match_subsystem(udev_enumerate* e, const char* subsystem) {
  e->dvb = subsystem != nullptr && strcmp(subsystem, "dvb") == 0;
  return 0;
}
SOFTDVB_EXPORT int udev_enumerate_add_nomatch_subsystem(udev_enumerate*, const char*) {
  return 0;
}
SOFTDVB_EXPORT int udev_enumerate_add_match_sysname(udev_enumerate*, const char*) {
  return 0;
}
SOFTDVB_EXPORT int udev_enumerate_add_match_property(udev_enumerate*, const char*, const char*) {
  return 0;
}
SOFTDVB_EXPORT int udev_enumerate_add_match_is_initialized(udev_enumerate*) {
  return 0;
}

SOFTDVB_EXPORT int udev_enumerate_scan_devices(udev_enumerate* e) {
  e->entries.clear();
  const Shared* s = shared();
  for (int i = 0; e->dvb && s != nullptr && i < s->adapter_count; ++i)
    for (const char* type : {"demux", "dvr", "frontend"})
      e->entries.push_back(
          {CLASS_FOLDER + ("dvb" + std::to_string(s->adapter[i].number)) + "." + type + "0", "", nullptr});
  for (size_t i = 0; i + 1 < e->entries.size(); ++i)
    e->entries[i].next = &e->entries[i + 1];
  return 0;
}
SOFTDVB_EXPORT int udev_enumerate_scan_subsystems(udev_enumerate*) {
  return 0;
}
SOFTDVB_EXPORT udev_list_entry* udev_enumerate_get_list_entry(udev_enumerate* e) {
  return e->entries.empty() ? nullptr : &e->entries.front();
}
SOFTDVB_EXPORT udev_list_entry* udev_list_entry_get_next(udev_list_entry* e) {
  return e != nullptr ? e->next : nullptr;
}
SOFTDVB_EXPORT const char* udev_list_entry_get_name(udev_list_entry* e) {
  return e != nullptr ? e->name.c_str() : nullptr;
}
SOFTDVB_EXPORT const char* udev_list_entry_get_value(udev_list_entry* e) {
  return e != nullptr ? e->value.c_str() : nullptr;
}

static udev_device* make_bus_device(udev* u) {
  auto* d = new udev_device;
  d->context = u;
  d->syspath = "/sys/devices/platform/softdvb";
  d->sysname = "softdvb";
  return d;
}

SOFTDVB_EXPORT udev_device* udev_device_new_from_syspath(udev* u, const char* syspath) {
  int adapter = -1;
  char type[16] = "";
  const size_t prefix = strlen(CLASS_FOLDER);
  if (syspath == nullptr || strncmp(syspath, CLASS_FOLDER, prefix) != 0 ||
      sscanf(syspath + prefix, "dvb%2d.%15[a-z]0", &adapter, type) != 2 || shared() == nullptr ||
      find_adapter(*shared(), adapter) == nullptr) {
    errno = ENODEV;
    return nullptr;
  }
  auto* d = new udev_device;
  d->context = u;
  d->adapter = adapter;
  d->type = type;
  d->syspath = syspath;
  d->sysname = syspath + prefix;
  d->number = std::to_string(adapter);
  d->devnode = "/dev/dvb/adapter" + d->number + "/" + d->type + "0";
  // A device without parent is silently left out by programs that group adapters by their bus.
  d->parent = make_bus_device(u);
  return d;
}
SOFTDVB_EXPORT udev_device* udev_device_new_from_subsystem_sysname(udev* u, const char* subsystem,
                                                                   const char* sysname) {
  if (subsystem == nullptr || strcmp(subsystem, "dvb") != 0 || sysname == nullptr) {
    errno = ENODEV;
    return nullptr;
  }
  return udev_device_new_from_syspath(u, (CLASS_FOLDER + std::string(sysname)).c_str());
}
SOFTDVB_EXPORT udev_device* udev_device_new_from_devnum(udev*, char, dev_t) {
  errno = ENODEV;
  return nullptr;
}
SOFTDVB_EXPORT udev_device* udev_device_ref(udev_device* d) {
  return refer(d);
}
SOFTDVB_EXPORT udev_device* udev_device_unref(udev_device* d) {
  if (d != nullptr && --d->references == 0) {
    delete d->parent;
    delete d;
  }
  return nullptr;
}
SOFTDVB_EXPORT udev* udev_device_get_udev(udev_device* d) {
  return d->context;
}
SOFTDVB_EXPORT udev_device* udev_device_get_parent(udev_device* d) {
  return d->parent;
}
SOFTDVB_EXPORT udev_device* udev_device_get_parent_with_subsystem_devtype(udev_device* d, const char* subsystem,
                                                                          const char*) {
  return subsystem != nullptr && strcmp(subsystem, "platform") == 0 ? d->parent : nullptr;
}
SOFTDVB_EXPORT const char* udev_device_get_syspath(udev_device* d) {
  return d->syspath.c_str();
}
SOFTDVB_EXPORT const char* udev_device_get_devpath(udev_device* d) {
  return d->syspath.c_str() + strlen("/sys");
}
SOFTDVB_EXPORT const char* udev_device_get_sysname(udev_device* d) {
  return d->sysname.c_str();
}
SOFTDVB_EXPORT const char* udev_device_get_sysnum(udev_device* d) {
  return d->parent != nullptr ? "0" : nullptr;
}
SOFTDVB_EXPORT const char* udev_device_get_devnode(udev_device* d) {
  return d->parent != nullptr ? d->devnode.c_str() : nullptr;
}
SOFTDVB_EXPORT const char* udev_device_get_devtype(udev_device*) {
  return nullptr;
}
SOFTDVB_EXPORT const char* udev_device_get_driver(udev_device*) {
  return nullptr;
}
SOFTDVB_EXPORT const char* udev_device_get_subsystem(udev_device* d) {
  return d->parent != nullptr ? "dvb" : "platform";
}
SOFTDVB_EXPORT const char* udev_device_get_action(udev_device*) {
  return nullptr;
}
SOFTDVB_EXPORT int udev_device_get_is_initialized(udev_device*) {
  return 1;
}
SOFTDVB_EXPORT dev_t udev_device_get_devnum(udev_device*) {
  return 0;
}
SOFTDVB_EXPORT const char* udev_device_get_sysattr_value(udev_device*, const char*) {
  return nullptr;
}
SOFTDVB_EXPORT udev_list_entry* udev_device_get_properties_list_entry(udev_device*) {
  return nullptr;
}
SOFTDVB_EXPORT const char* udev_device_get_property_value(udev_device* d, const char* key) {
  if (d->parent == nullptr || key == nullptr)
    return nullptr;
  if (strcmp(key, "DVB_DEVICE_TYPE") == 0)
    return d->type.c_str();
  if (strcmp(key, "DVB_ADAPTER_NUM") == 0)
    return d->number.c_str();
  if (strcmp(key, "DVB_DEVICE_NUM") == 0)
    return "0";
  if (strcmp(key, "DEVNAME") == 0)
    return d->devnode.c_str();
  return nullptr;
}

// A monitor that never has news: adapters come and go with the command.
SOFTDVB_EXPORT udev_monitor* udev_monitor_new_from_netlink(udev* u, const char*) {
  auto* m = new udev_monitor;
  m->context = u;
  m->fd = SOFTDVB_REAL(eventfd)(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return m;
}
SOFTDVB_EXPORT udev_monitor* udev_monitor_ref(udev_monitor* m) {
  return refer(m);
}
SOFTDVB_EXPORT udev_monitor* udev_monitor_unref(udev_monitor* m) {
  if (m != nullptr && --m->references == 0) {
    SOFTDVB_REAL(close)(m->fd);
    delete m;
  }
  return nullptr;
}
SOFTDVB_EXPORT udev* udev_monitor_get_udev(udev_monitor* m) {
  return m->context;
}
SOFTDVB_EXPORT int udev_monitor_filter_add_match_subsystem_devtype(udev_monitor*, const char*, const char*) {
  return 0;
}
SOFTDVB_EXPORT int udev_monitor_filter_update(udev_monitor*) {
  return 0;
}
SOFTDVB_EXPORT int udev_monitor_enable_receiving(udev_monitor*) {
  return 0;
}
SOFTDVB_EXPORT int udev_monitor_set_receive_buffer_size(udev_monitor*, int) {
  return 0;
}
SOFTDVB_EXPORT int udev_monitor_get_fd(udev_monitor* m) {
  return m->fd;
}
SOFTDVB_EXPORT udev_device* udev_monitor_receive_device(udev_monitor*) {
  errno = EAGAIN;
  return nullptr;
}
