# Install layout and packages (.deb and .rpm through CPack).
#
# The agent looks for the tool at <data dir>/bin/zelkor-patchmgmt-tool, the
# data directory being /opt/zelkor-agent unless ZELKOR_AGENT_DATA_DIR moves
# it, so the install prefix is that data directory. The tool reads its log
# configuration from <config dir>/zagent-patchmgmt-log.conf, the config
# directory being /etc/zelkor-agent unless ZELKOR_AGENT_CONFIG_DIR moves it;
# that place does not follow the prefix, so it has an option of its own.
#
#   cmake --install build [--prefix DIR] [--strip]    DESTDIR=... relocates all
#   -DPM_INSTALL_CONFIG_DIR=DIR    where the log configuration goes (default
#                                  /etc/zelkor-agent; a relative DIR is taken
#                                  under the prefix)
# A build directory configured before this layout existed holds CMake's
# /usr/local; it moves to the agent's directory once, after which a prefix
# given on purpose stays.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT OR
   (NOT DEFINED CACHE{PM_INSTALL_LAYOUT} AND CMAKE_INSTALL_PREFIX STREQUAL "/usr/local"))
  set(CMAKE_INSTALL_PREFIX "/opt/zelkor-agent" CACHE PATH
    "The agent's data directory, which holds bin/zelkor-patchmgmt-tool" FORCE)
endif()
set(PM_INSTALL_LAYOUT 1 CACHE INTERNAL "The install prefix has been set up for the agent")
set(PM_INSTALL_CONFIG_DIR "/etc/zelkor-agent" CACHE PATH
  "Where the log configuration is installed: the agent's configuration directory")

install(FILES config/zagent-patchmgmt-log.conf DESTINATION "${PM_INSTALL_CONFIG_DIR}")
# The reference deployment scripts, for the agent to name in its argument files.
install(PROGRAMS scripts/deploy/deploy-deb scripts/deploy/deploy-rpm DESTINATION scripts)
install(FILES scripts/deploy/deploy-lib.sh DESTINATION scripts)

set(CPACK_PACKAGE_NAME zelkor-patchmgmt-tool)
set(CPACK_PACKAGE_VENDOR "Zelkor")
set(CPACK_PACKAGE_CONTACT "Zelkor agent team <agent@zelkor.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Patch deployment tool of the Zelkor endpoint agent")
set(CPACK_PACKAGE_DESCRIPTION
  "Runs a patch deployment job for the Zelkor agent: installs each patch's packages through a deployment script and records the outcome in result documents and an exit-code file.")
set(CPACK_GENERATOR DEB RPM)
set(CPACK_PACKAGING_INSTALL_PREFIX "/opt/zelkor-agent")
set(CPACK_STRIP_FILES ON)
# The agent finds the tool and its configuration at fixed places.
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_OUTPUT_FILE_PREFIX "")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The log configuration is the operator's to edit: an upgrade keeps changes.
set(pm_config_file "${PM_INSTALL_CONFIG_DIR}/zagent-patchmgmt-log.conf")
if(NOT IS_ABSOLUTE "${pm_config_file}")
  set(pm_config_file "${CPACK_PACKAGING_INSTALL_PREFIX}/${pm_config_file}")
endif()
set(pm_conffiles "${CMAKE_CURRENT_BINARY_DIR}/debian/conffiles")
file(WRITE "${pm_conffiles}" "${pm_config_file}\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${pm_conffiles}")

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE "Proprietary")
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Daemons")
set(CPACK_RPM_PACKAGE_AUTOREQ ON)
set(CPACK_RPM_PACKAGE_AUTOPROV OFF)
set(CPACK_RPM_USER_FILELIST "%config(noreplace) ${pm_config_file}")
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /opt)

set(CPACK_PM_SOURCE_DIR "${PROJECT_SOURCE_DIR}")
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/cmake/cpack-project.cmake")

include(CPack)
