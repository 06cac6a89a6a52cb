# The headers as users see them: one folder, VeltoIPC/, below one include path, in the build folder and installed alike.
# Within the project the headers of the platform stand above that folder and name each other "platform/..."; for users they
# are copied below it when the project is configured, and name each other "VeltoIPC/platform/...". Each copy refuses an
# older language first of all.
set(VELTO_HEADERS ${PROJECT_BINARY_DIR}/headers)

# velto_public_header(SOURCE PATH): PATH is how users name it. Written only when it has changed.
function(velto_public_header source path)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  string(REPLACE "#include \"platform/" "#include \"VeltoIPC/platform/" text "${text}")
  set(language VeltoIPC/platform/foundation/Language.h)
  if(NOT path STREQUAL language)
    string(REPLACE "#pragma once\n" "#pragma once\n\n#include \"${language}\"\n" text "${text}")
  endif()
  set(before "")
  if(EXISTS ${VELTO_HEADERS}/${path})
    file(READ ${VELTO_HEADERS}/${path} before)
  endif()
  if(NOT before STREQUAL text)
    file(WRITE ${VELTO_HEADERS}/${path} "${text}")
  endif()
  string(REGEX MATCHALL "#include \"[^\"]+\"" includes "${text}")
  list(TRANSFORM includes REPLACE "#include \"(.+)\"" "\\1")
  set_property(GLOBAL APPEND PROPERTY VELTO_PUBLIC_INCLUDES ${includes})
  set_property(GLOBAL APPEND PROPERTY VELTO_PUBLIC_HEADERS ${path})
endfunction()

# velto_public_headers(FOLDER PREFIX PATTERN...)
function(velto_public_headers folder prefix)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/${folder}/ OUTPUT_VARIABLE patterns)
  file(GLOB files CONFIGURE_DEPENDS ${patterns})
  foreach(file IN LISTS files)
    cmake_path(GET file FILENAME name)
    velto_public_header(${file} ${prefix}/${name})
  endforeach()
endfunction()

velto_public_headers(include/VeltoIPC VeltoIPC *.h)
foreach(headers IN ITEMS
    "foundation NS*.h AtomicProperty.h Box.h BracedEntry.h Class.h ComingOut.h Description.h DictionaryHandler.h \
      EmptyBraces.h Export.h Fields.h FormatArgument.h Foundation.h GoingIn.h JSON.h Language.h Lookup.h ObjectBody.h \
      PlainTypes.h StructIn.h StructOut.h ThreadAnnotations.h Value.h WalkBound.h"
    "logging VeltoLogging.h"
    "xpc NSFileDescriptor.h NSXPC*.h Delivery.h Protocol.h"
    "xpc/contract *.h"
    "xpc/interface NSXPC*.h Protocol.h"
    "xpc/system Descriptor.h")
  separate_arguments(headers)
  list(POP_FRONT headers folder)
  velto_public_headers(platform/${folder} VeltoIPC/platform/${folder} ${headers})
endforeach()

# What they include they bring along, and nothing stays of a header that is no more.
function(velto_check_public_headers)
  get_property(included GLOBAL PROPERTY VELTO_PUBLIC_INCLUDES)
  get_property(present GLOBAL PROPERTY VELTO_PUBLIC_HEADERS)
  list(REMOVE_DUPLICATES included)
  list(REMOVE_ITEM included ${present})
  if(included)
    message(FATAL_ERROR "Public headers include what is not public: ${included}")
  endif()
  file(GLOB_RECURSE old RELATIVE ${VELTO_HEADERS} ${VELTO_HEADERS}/*)
  list(REMOVE_ITEM old ${present})
  list(TRANSFORM old PREPEND ${VELTO_HEADERS}/)
  if(old)
    file(REMOVE ${old})
  endif()
endfunction()
velto_check_public_headers()
