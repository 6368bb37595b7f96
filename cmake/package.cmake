# Debian packages: `cpack -G DEB` (run by scripts/package) makes one package per install
# component. Debian's rules that CPack has no word for (Multi-Arch) are added by
# scripts/package; lintian checks the result.
set(ZOVDX_DEB_RELEASE 1)
set(ZOVDX_DEB_MAINTAINER "libzovdx developers <packages@zovdx.dev>")

# Each package carries the copyright and the Debian changelog, compressed the way Debian
# wants it (gzip -9n: no name, no time stamp, the same bytes every build).
execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/deploy/debian/changelog
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
# component:package. The Kubernetes device plugin is packaged where it is built (gRPC found).
set(ZOVDX_DEB_PACKAGES lib:libzovdx1 dev:libzovdx-dev tools:zovdx-tools sim:vdx-sim
                       python:python3-zovdx)
if(ZOVDX_HAVE_DEVICE_PLUGIN)
  list(APPEND ZOVDX_DEB_PACKAGES plugin:vdx-device-plugin)
endif()
foreach(pair IN LISTS ZOVDX_DEB_PACKAGES)
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/deploy/debian/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component}
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  # Lintian overrides, each with its reason.
  file(WRITE ${PROJECT_BINARY_DIR}/deb-overrides/${package}
       "# Not a package of the Debian archive: its first upload has no ITP bug to close.\n"
       "${package}: initial-upload-closes-no-bugs\n")
  install(FILES ${PROJECT_BINARY_DIR}/deb-overrides/${package}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component}
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
endforeach()

# The symbols file of the library, from the one list of its exported names.
file(STRINGS ${PROJECT_SOURCE_DIR}/virtual/libzovdx.map exported REGEX "^ +vdx[A-Za-z]+;$")
set(symbols "libzovdx.so.${PROJECT_VERSION_MAJOR} libzovdx1 #MINVER#\n VDX_1@VDX_1 1.0.0\n")
foreach(name IN LISTS exported)
  string(REGEX REPLACE "[ ;]" "" name "${name}")
  string(APPEND symbols " ${name}@VDX_1 1.0.0\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/deb-lib/symbols "${symbols}")
# Debian's triggers for a shared library: the linker cache is brought up to date.
file(WRITE ${PROJECT_BINARY_DIR}/deb-lib/triggers "activate-noawait ldconfig\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libzovdx)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libzovdx developers")
set(CPACK_PACKAGE_CONTACT ${ZOVDX_DEB_MAINTAINER})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tools sim python)
if(ZOVDX_HAVE_DEVICE_PLUGIN)
  list(APPEND CPACK_COMPONENTS_ALL plugin)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ZOVDX_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${ZOVDX_DEB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://zovdx.dev)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The tools need the library of this very build: dpkg-shlibdeps finds it here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_STRIP_FILES ON)
set(full_version "${PROJECT_VERSION}-${ZOVDX_DEB_RELEASE}")

set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/deb-lib/symbols ${PROJECT_BINARY_DIR}/deb-lib/triggers)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_LIB_DESCRIPTION
"split compute accelerators into virtual devices
libzovdx partitions GPU-class compute accelerators into virtual devices
(compute units, a memory limit and a hardware pipe each), keeps their
configuration under /etc/vdev, creates their driver instances and binds
processes and containers to them. This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzovdx1 (= ${full_version})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"split compute accelerators into virtual devices - development files
libzovdx partitions GPU-class compute accelerators into virtual devices.
This package holds what a program needs to build against the library:
the header zovdx/vdx.h, the libzovdx.so link, a pkg-config file and a
CMake package.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libzovdx1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/deploy/debian/zovdx-tools/postinst
    ${PROJECT_SOURCE_DIR}/deploy/debian/zovdx-tools/postrm)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"command line and node service for virtual accelerator devices
vdxctl lists, creates, updates and destroys the virtual devices of
libzovdx, shows busy percentages and writes CDI specifications for
container engines. vdxd keeps the configured virtual devices started and
serves Prometheus metrics; its systemd unit is installed but not
enabled.")

set(CPACK_DEBIAN_SIM_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_SIM_DESCRIPTION
"simulated accelerator machine for libzovdx
vdx-sim runs a program on a private, simulated host with accelerators:
the device node, the driver's sysfs tree and the host manager service.
The unmodified library and any program that loads it run there as on
hardware, for tests and demonstrations without the hardware.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/deploy/debian/python3-zovdx/postinst
    ${PROJECT_SOURCE_DIR}/deploy/debian/python3-zovdx/prerm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any, libzovdx1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
"split compute accelerators into virtual devices - Python 3 package
The zovdx package gives Python scripts every function of libzovdx:
devices and virtual devices as data classes, failures as exceptions. It
is pure Python over the installed shared library.")

set(CPACK_DEBIAN_PLUGIN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_DEPENDS "libzovdx1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PLUGIN_DESCRIPTION
"Kubernetes device plugin for virtual accelerator devices
vdx-device-plugin offers a node's libzovdx virtual devices to the kubelet
through its device plugin API: one resource for all, or one per shape,
health from the driver, CDI names for the container runtime. It runs
beside vdxd, which keeps the virtual devices started.")

include(CPack)
