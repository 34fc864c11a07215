# One object library per layer, vidora_<name>, and the two libraries that all of them make.

set(VIDORA_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    list(APPEND VIDORA_WARNINGS -Wthread-safety)
endif()
set(VIDORA_ALL_LAYERS "" CACHE INTERNAL "")

# vidora_layer(name [DIRS dir...] [EXCEPT path...] [PATHS path...] [FILES stem...] [DEPS layer...])
# DIRS are searched for sources. FILES are stems of files at the top of Src, and * takes all that no layer before took.
# Of both those that EXCEPT names are left out; PATHS are sources by themselves, both without their endings.
function(vidora_layer name)
    cmake_parse_arguments(ARG "" "" "DIRS;EXCEPT;PATHS;FILES;DEPS" ${ARGN})
    set(sources)
    foreach(dir IN LISTS ARG_DIRS)
        file(GLOB_RECURSE found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*.cpp ${PROJECT_SOURCE_DIR}/${dir}/*.h)
        list(APPEND sources ${found})
    endforeach()
    foreach(path IN LISTS ARG_PATHS)
        file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${path}.cpp ${PROJECT_SOURCE_DIR}/${path}.h)
        list(APPEND sources ${found})
    endforeach()
    file(GLOB top CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Src/*.cpp ${PROJECT_SOURCE_DIR}/Src/*.h)
    get_property(taken GLOBAL PROPERTY VIDORA_TAKEN_FILES)
    foreach(file IN LISTS top)
        get_filename_component(stem ${file} NAME_WE)
        if(NOT file IN_LIST taken AND (stem IN_LIST ARG_FILES OR "*" IN_LIST ARG_FILES))
            list(APPEND sources ${file})
            set_property(GLOBAL APPEND PROPERTY VIDORA_TAKEN_FILES ${file})
        endif()
    endforeach()
    foreach(path IN LISTS ARG_EXCEPT)
        list(REMOVE_ITEM sources ${PROJECT_SOURCE_DIR}/${path}.cpp ${PROJECT_SOURCE_DIR}/${path}.h)
    endforeach()

    set(closure)
    foreach(dep IN LISTS ARG_DEPS)
        get_property(inner GLOBAL PROPERTY VIDORA_CLOSURE_${dep})
        list(APPEND closure ${inner} ${dep})
    endforeach()
    list(REMOVE_DUPLICATES closure)
    set_property(GLOBAL PROPERTY VIDORA_CLOSURE_${name} ${closure})
    set_property(GLOBAL PROPERTY VIDORA_SOURCES_${name} ${sources})
    set_property(GLOBAL APPEND PROPERTY VIDORA_LAYERS ${name})

    set(cpps ${sources})
    list(FILTER cpps INCLUDE REGEX "\\.cpp$")
    if(NOT cpps)
        file(WRITE ${CMAKE_BINARY_DIR}/empty_${name}.cpp "")
        list(APPEND sources ${CMAKE_BINARY_DIR}/empty_${name}.cpp)
    endif()

    add_library(vidora_${name} OBJECT ${sources})
    target_include_directories(vidora_${name} PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/base
                               ${PROJECT_SOURCE_DIR}/Src)
    # Both spellings of __FILE__: Src/Protocol/X.cpp shows as Protocol/X.cpp, base/Tramel/X.cpp as base/Tramel/X.cpp. A
    # compiler cache may rewrite paths to relative ones, as seen from the build folder.
    file(RELATIVE_PATH from_build ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})
    target_compile_options(vidora_${name} PRIVATE ${VIDORA_WARNINGS}
                           -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/= -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/Src/=
                           -fmacro-prefix-map=${from_build}= -fmacro-prefix-map=${from_build}Src/=
                           -fno-semantic-interposition)
    target_link_libraries(vidora_${name} PUBLIC Threads::Threads)

    # Layers share the Src folder, so a script holds each file's includes against the layers that it may use.
    set(list_file ${CMAKE_BINARY_DIR}/layers/${name}.txt)
    set(text "layer ${name}\n")
    foreach(layer IN LISTS closure ITEMS ${name})
        get_property(files GLOBAL PROPERTY VIDORA_SOURCES_${layer})
        foreach(file IN LISTS files)
            string(APPEND text "${layer} ${file}\n")
        endforeach()
    endforeach()
    file(CONFIGURE OUTPUT ${list_file} CONTENT "${text}" @ONLY)
    set(stamp ${CMAKE_BINARY_DIR}/layers/${name}.stamp)
    add_custom_command(OUTPUT ${stamp}
        COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/cmake/check_layer.py ${PROJECT_SOURCE_DIR} ${list_file}
        COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
        DEPENDS ${sources} ${list_file} ${PROJECT_SOURCE_DIR}/cmake/check_layer.py
        COMMENT "Checking the includes of layer ${name}" VERBATIM)
    add_custom_target(vidora_${name}_includes DEPENDS ${stamp})
    add_dependencies(vidora_${name} vidora_${name}_includes)
endfunction()

# Links `target` with the objects of the given layers and of all that they build on.
function(vidora_link_layers target)
    set(all)
    foreach(layer IN LISTS ARGN)
        get_property(closure GLOBAL PROPERTY VIDORA_CLOSURE_${layer})
        list(APPEND all ${closure} ${layer})
    endforeach()
    list(REMOVE_DUPLICATES all)
    foreach(layer IN LISTS all)
        target_link_libraries(${target} PRIVATE vidora_${layer})
    endforeach()
endfunction()

# libvidora.so and libvidora.a of all layers.
function(vidora_library)
    get_property(layers GLOBAL PROPERTY VIDORA_LAYERS)
    set(objects)
    foreach(layer IN LISTS layers)
        list(APPEND objects $<TARGET_OBJECTS:vidora_${layer}>)
    endforeach()
    add_library(vidora SHARED ${objects})
    add_library(vidora_static STATIC ${objects})
    set_target_properties(vidora PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    set_target_properties(vidora_static PROPERTIES OUTPUT_NAME vidora)
    # Visibility tells which of the library's own names are exported; the script hides what else has default visibility,
    # instances of the standard library's templates.
    target_link_options(vidora PRIVATE LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/vidora.map)
    set_property(TARGET vidora APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/vidora.map)
    # The library's calls of its own exported operations go straight there, and the compiler may inline them.
    target_link_options(vidora PRIVATE LINKER:-Bsymbolic-functions)
    foreach(target vidora vidora_static)
        target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                   $<INSTALL_INTERFACE:include>)
        target_link_libraries(${target} PUBLIC Threads::Threads)
    endforeach()
    include(GNUInstallDirs)
    install(TARGETS vidora vidora_static)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/Vidora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()
