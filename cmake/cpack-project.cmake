# Read by cpack once per generator.
if(CPACK_GENERATOR STREQUAL "RPM")
  set(RPMBUILD_EXECUTABLE "${CPACK_PM_SOURCE_DIR}/cmake/rpmbuild-nodeps")
endif()
