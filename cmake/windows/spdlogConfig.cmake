# spdlog by its headers alone, with the fmt beside it.
include(CMakeFindDependencyMacro)
find_dependency(fmt)
if(NOT TARGET spdlog::spdlog)
  add_library(spdlog::spdlog INTERFACE IMPORTED)
  set_target_properties(spdlog::spdlog PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/../../../include"
    INTERFACE_COMPILE_DEFINITIONS SPDLOG_FMT_EXTERNAL=1
    INTERFACE_LINK_LIBRARIES fmt::fmt)
endif()
