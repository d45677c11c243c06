# -DTAVIRN_PLATFORM=vendor: the device's own libraries in place of platform/host/.
if(NOT EXISTS "${TAVIRN_VENDOR_HEADERS}/platform/zuvo_chunk.h")
  message(FATAL_ERROR "The vendor's platform/zuvo_chunk.h is missing: "
    "-DTAVIRN_VENDOR_HEADERS= takes the directory below which it lies, and is '${TAVIRN_VENDOR_HEADERS}'.")
endif()
foreach(library kw_com Zuvo)
  # There, or where the cross compiler's libraries are.
  find_library(TAVIRN_VENDOR_${library} ${library} HINTS "${TAVIRN_VENDOR_LIBRARIES}" CMAKE_FIND_ROOT_PATH_BOTH)
  mark_as_advanced(TAVIRN_VENDOR_${library})
  if(NOT TAVIRN_VENDOR_${library})
    message(FATAL_ERROR "The vendor's lib${library}.so is missing: "
      "-DTAVIRN_VENDOR_LIBRARIES= takes the directory that it lies in, and is '${TAVIRN_VENDOR_LIBRARIES}'.")
  endif()
endforeach()
# By their names in the linking: a library that has no name of its own would be asked for with its path here.
include_directories(BEFORE ${TAVIRN_VENDOR_HEADERS})
link_directories(${TAVIRN_VENDOR_LIBRARIES})
