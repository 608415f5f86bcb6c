# Refuse in-source builds: they scatter generated files through the tree.
if(CMAKE_SOURCE_DIR STREQUAL CMAKE_BINARY_DIR)
    message(FATAL_ERROR "In-source builds are not supported. Use e.g. 'cmake -B build'.")
endif()
