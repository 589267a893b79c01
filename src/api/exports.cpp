#include <cstdio>

#include "api/banner.h"
#include "api/border.h"
#include "api/index_object.h"
#include "api/utils_object.h"
#include "korvex/korvex.h"
#include "runtime/platform/process.h"

namespace {

Korvex* create_index(const char* function, int dimension, const char* path, const char* name) {
  return korvex::at_border(function, static_cast<Korvex*>(nullptr), [&]() -> Korvex* {
    return korvex::KorvexImpl::create(dimension, path, name).release();
  });
}

}  // namespace

extern "C" {

int KorvexInterfaceVersion(void) {
  return korvex::interface_version;
}

Korvex* createKorvexInstance(int dimension) {
  return create_index("createKorvexInstance", dimension, nullptr, nullptr);
}

Korvex* createKorvexOnDiskInstance(int dimension, const char* path, const char* name) {
  constexpr const char* function = "createKorvexOnDiskInstance";
  if (path != nullptr) return create_index(function, dimension, path, name);
  return korvex::at_border(function, static_cast<Korvex*>(nullptr), [&] {
    return create_index(function, dimension, korvex::platform::user_data_directory().c_str(), name);
  });
}

KorvexUtils* createKorvexUtilsInstance(void) {
  return korvex::at_border("createKorvexUtilsInstance", static_cast<KorvexUtils*>(nullptr),
                           [] { return korvex::utils_instance(); });
}

Korvex* KorvexInstance(int dimension) {
  return createKorvexInstance(dimension);
}

Korvex* KorvexOnDiskInstance(int dimension, const char* path, const char* name) {
  return createKorvexOnDiskInstance(dimension, path, name);
}

KorvexUtils* KorvexUtilsInstance(void) {
  return createKorvexUtilsInstance();
}

int korvex_info(void) {
  std::printf("%s", korvex::banner_line);
  return std::printf("%s", korvex::project_line);
}

}  // extern "C"
