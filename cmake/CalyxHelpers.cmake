# Include roots per layer. Sources include by path from the top of the tree ("platform/core/Ptr.h"); a target
# is not given the top itself but, per top-level folder its layer may see, a root in the build tree holding
# only a link to that folder. So an include that points up or sideways fails to compile in that target, not only
# in scripts/check-layers. calyx_include_root(<target> <scope> <folder>...) gives a target those roots.
function(calyx_include_root target scope)
  foreach(folder IN LISTS ARGN)
    set(root ${PROJECT_BINARY_DIR}/include-roots/${folder})
    if(NOT EXISTS ${root}/${folder})
      file(MAKE_DIRECTORY ${root})
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${root}/${folder} SYMBOLIC)
    endif()
    target_include_directories(${target} ${scope} ${root})
  endforeach()
endfunction()

# Every source file of a component is picked up by its folder, so adding a unit never means editing a list.
function(calyx_sources out)
  set(all)
  foreach(dir IN LISTS ARGN)
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
    list(APPEND all ${found})
  endforeach()
  set(${out} ${all} PARENT_SCOPE)
endfunction()

# One test executable per *Test.cpp file below the given folder, registered with ctest under its path
# ("platform/core/ReactorListTest"). Tests run from the build tree with the tools' folder on PATH.
function(calyx_add_tests dir)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB_RECURSE files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*Test.cpp)
  foreach(file IN LISTS files)
    file(RELATIVE_PATH rel ${CMAKE_CURRENT_SOURCE_DIR} ${file})
    string(REGEX REPLACE "\\.cpp$" "" name ${rel})
    string(REPLACE "/" "_" target ${name})
    add_executable(${target} ${file})
    target_link_libraries(${target} PRIVATE ${ARG_LIBS} calyx_test_support GTest::gtest GTest::gtest_main)
    add_test(NAME ${name} COMMAND ${target})
    set_tests_properties(${name} PROPERTIES
      ENVIRONMENT "PATH=${CMAKE_BINARY_DIR}/tools:${CMAKE_BINARY_DIR}/agent:$ENV{PATH};CALYX_BUILD_DIR=${CMAKE_BINARY_DIR}"
      TIMEOUT 300)
  endforeach()
endfunction()
