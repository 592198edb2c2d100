# The layers of the library: one object library per layer, each compiled against an include view that
# holds only the headers of its own layer and of the layers it stands on.
#
#   zel_layer_files(layer file...)  puts files of a shared folder (core/, transport/) into a layer
#   zel_layer_rest(layer folder)    puts the folder's files not named yet into the layer; with an empty
#                                   layer a file not named is an error (every file of the folder is named)
#   zel_layer(layer below...)       makes the layer's target zel_<layer>, standing on the layers below; a
#                                   layer with no files named is the folder of its name, all of it
#   zel_layer_libs(layer lib...)   libraries that the layer alone uses (not the ones every layer links): the
#                                   layer links them, and so do the layering check and the libraries
#   zel_layering_check()            one scratch shared object per layer, linked with -Wl,--no-undefined
#                                   from the layer and the layers below only, built by layering_check

set(ZEL_LAYERS "")
set(ZEL_LAYER_VIEWS ${CMAKE_BINARY_DIR}/layer_views)
set(ZEL_SHARED_FOLDER_FILES "")

function(zel_layer_files layer)
  foreach(file ${ARGN})
    if(NOT EXISTS ${CMAKE_SOURCE_DIR}/${file})
      message(FATAL_ERROR "layer ${layer}: ${file} does not exist")
    endif()
    if(file IN_LIST ZEL_SHARED_FOLDER_FILES)
      message(FATAL_ERROR "${file} is put into two layers")
    endif()
    list(APPEND ZEL_SHARED_FOLDER_FILES ${file})
    set_property(GLOBAL APPEND PROPERTY ZEL_LAYER_${layer}_FILES ${file})
  endforeach()
  set(ZEL_SHARED_FOLDER_FILES ${ZEL_SHARED_FOLDER_FILES} PARENT_SCOPE)
endfunction()

function(zel_layer_rest layer folder)
  file(GLOB files CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}
       ${CMAKE_SOURCE_DIR}/${folder}/*.cpp ${CMAKE_SOURCE_DIR}/${folder}/*.c
       ${CMAKE_SOURCE_DIR}/${folder}/*.h ${CMAKE_SOURCE_DIR}/${folder}/*.inc)
  foreach(file ${files})
    if(NOT file IN_LIST ZEL_SHARED_FOLDER_FILES)
      if(layer STREQUAL "")
        message(FATAL_ERROR "${file} belongs to no layer: name it in a zel_layer_files() of CMakeLists.txt")
      endif()
      set_property(GLOBAL APPEND PROPERTY ZEL_LAYER_${layer}_FILES ${file})
    endif()
  endforeach()
endfunction()

function(zel_layer layer)
  get_property(files GLOBAL PROPERTY ZEL_LAYER_${layer}_FILES)
  if(NOT files)
    if(NOT IS_DIRECTORY ${CMAKE_SOURCE_DIR}/${layer})
      message(FATAL_ERROR "layer ${layer} has no files and no folder")
    endif()
    file(GLOB files CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}
         ${CMAKE_SOURCE_DIR}/${layer}/*.cpp ${CMAKE_SOURCE_DIR}/${layer}/*.c
         ${CMAKE_SOURCE_DIR}/${layer}/*.h ${CMAKE_SOURCE_DIR}/${layer}/*.inc)
    set_property(GLOBAL PROPERTY ZEL_LAYER_${layer}_FILES ${files})
  endif()
  # Everything the layer stands on, directly or through another layer.
  set(below "")
  foreach(dep ${ARGN})
    if(NOT dep IN_LIST ZEL_LAYERS)
      message(FATAL_ERROR "layer ${layer} stands on ${dep}, which is not made before it")
    endif()
    get_property(dep_below GLOBAL PROPERTY ZEL_LAYER_${dep}_BELOW)
    list(APPEND below ${dep} ${dep_below})
  endforeach()
  list(REMOVE_DUPLICATES below)
  set_property(GLOBAL PROPERTY ZEL_LAYER_${layer}_BELOW ${below})

  # The include view: links to the headers of this layer and the layers below, at their own paths.
  set(view ${ZEL_LAYER_VIEWS}/${layer})
  file(REMOVE_RECURSE ${view})
  set(sources "")
  foreach(owner ${layer} ${below})
    get_property(owner_files GLOBAL PROPERTY ZEL_LAYER_${owner}_FILES)
    foreach(file ${owner_files})
      if(file MATCHES "\\.(h|inc)$")
        get_filename_component(dir ${view}/${file} DIRECTORY)
        file(MAKE_DIRECTORY ${dir})
        file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${file} ${view}/${file} SYMBOLIC)
      endif()
    endforeach()
  endforeach()
  foreach(file ${files})
    if(file MATCHES "\\.(cpp|c)$")
      list(APPEND sources ${CMAKE_SOURCE_DIR}/${file})
    endif()
  endforeach()

  add_library(zel_${layer} OBJECT ${sources})
  target_include_directories(zel_${layer} PRIVATE ${CMAKE_SOURCE_DIR}/include ${view})
  target_compile_definitions(zel_${layer} PRIVATE ZEL_BUILDING_LIBRARY=1)
  set_target_properties(zel_${layer} PROPERTIES CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden
                        VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(zel_${layer} PRIVATE OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB Threads::Threads ${CMAKE_DL_LIBS})
  if(ZEL_UNITY)
    set_target_properties(zel_${layer} PROPERTIES UNITY_BUILD ON)
  endif()
  set(ZEL_LAYERS ${ZEL_LAYERS} ${layer} PARENT_SCOPE)
endfunction()

function(zel_layer_libs layer)
  if(NOT layer IN_LIST ZEL_LAYERS)
    message(FATAL_ERROR "zel_layer_libs: no layer ${layer}")
  endif()
  set_property(GLOBAL APPEND PROPERTY ZEL_LAYER_${layer}_LIBS ${ARGN})
  set_property(GLOBAL APPEND PROPERTY ZEL_LAYER_LIBS ${ARGN})
  target_link_libraries(zel_${layer} PRIVATE ${ARGN})
endfunction()

function(zel_layering_check)
  add_custom_target(layering_check)
  foreach(layer ${ZEL_LAYERS})
    get_property(below GLOBAL PROPERTY ZEL_LAYER_${layer}_BELOW)
    set(objects $<TARGET_OBJECTS:zel_${layer}>)
    get_property(libs GLOBAL PROPERTY ZEL_LAYER_${layer}_LIBS)
    foreach(dep ${below})
      list(APPEND objects $<TARGET_OBJECTS:zel_${dep}>)
      get_property(dep_libs GLOBAL PROPERTY ZEL_LAYER_${dep}_LIBS)
      list(APPEND libs ${dep_libs})
    endforeach()
    add_library(zel_layering_${layer} SHARED EXCLUDE_FROM_ALL ${objects})
    set_target_properties(zel_layering_${layer} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/layering)
    target_link_options(zel_layering_${layer} PRIVATE -Wl,--no-undefined)
    target_link_libraries(zel_layering_${layer} PRIVATE ${libs} OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB Threads::Threads
                          ${CMAKE_DL_LIBS})
    add_dependencies(layering_check zel_layering_${layer})
  endforeach()
endfunction()
