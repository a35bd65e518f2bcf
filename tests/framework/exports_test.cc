// The plug-in's dynamic symbol table: the C interface and its data symbols are
// there, C++ internals (ours and the libraries') are not.
#include <dlfcn.h>

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(PluginExports, OnlyTheCInterfaceIsVisible) {
  void* handle = dlopen(DTL_BINARY_DIR "/lib/libipfix_bin_data_provider.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  for (const char* name : {"dtl_getenv", "dtl_set_thread_name", "dtl_dict_create", "log_hex", "is_registered",
                           "_dtl_register_logger", "dtl_expand_string_template", "string_concat_comma_separated_token"})
    EXPECT_NE(dlsym(handle, name), nullptr) << name;
  for (const char* name : {"_ZN3dtl6detail14string_to_boolERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                           "_ZTVN5boost16bad_lexical_castE", "_ZNK5boost6system12system_error4whatEv"}) {
    // A dependency such as libboost_filesystem may define the name itself.
    Dl_info info{};
    void* found = dlsym(handle, name);
    EXPECT_FALSE(found != nullptr && dladdr(found, &info) != 0 && info.dli_fname != nullptr &&
                 std::string(info.dli_fname).find("libipfix_bin_data_provider") != std::string::npos) << name;
  }
  dlclose(handle);
}

}  // namespace
