# What the daemon is made of: `cmake --build ... --target sbom` writes velmd.cdx.json (CycloneDX) into the
# build directory. It asks this machine's loader and dpkg, so it is for builds that run where they are made.
find_program(VELM_PYTHON NAMES python3)
set(VELM_SBOM ${CMAKE_BINARY_DIR}/velmd.cdx.json)
set(VELM_LINKER_MAP ${CMAKE_BINARY_DIR}/velmd.map)
target_link_options(velmd PRIVATE -Wl,-Map=${VELM_LINKER_MAP})
add_custom_target(sbom
    COMMAND ${VELM_PYTHON} ${CMAKE_SOURCE_DIR}/scripts/sbom.py
        $<TARGET_FILE:velmd> ${VELM_LINKER_MAP} velmd ${PROJECT_VERSION} ${VELM_SBOM}
    DEPENDS velmd
    VERBATIM)
