# What `make install` and `make package` ship: the tool in bin, the module in
# lib/mendaris (found by the tool from its own folder), the man page made from
# the README's manual, and the licence.

find_program(GO_MD2MAN go-md2man)
if(GO_MD2MAN)
  set(MENDARIS_MAN_PAGE ${CMAKE_BINARY_DIR}/mendaris.1)
  add_custom_command(OUTPUT ${MENDARIS_MAN_PAGE}
    COMMAND bash ${CMAKE_SOURCE_DIR}/scripts/manpage.sh ${CMAKE_SOURCE_DIR}/README.md ${PROJECT_VERSION}
            ${MENDARIS_MAN_PAGE}
    DEPENDS ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/scripts/manpage.sh
    COMMENT "Making the man page from the README")
  add_custom_target(man_page ALL DEPENDS ${MENDARIS_MAN_PAGE})
  install(FILES ${MENDARIS_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(STATUS "go-md2man not found: no man page")
endif()

install(TARGETS mendaris RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS MendarisK mendaris_images LIBRARY DESTINATION ${MENDARIS_MODULE_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/mendaris RENAME copyright)

# The Debian package: `cpack -G DEB` in the native build (make package).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mendaris)
set(CPACK_PACKAGE_VENDOR "Tawny Quince")
set(CPACK_PACKAGE_CONTACT "Tawny Quince")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "fills in the transparent areas of image files (edge padding)")
set(CPACK_PACKAGE_DESCRIPTION
  "The Mendaris K filter on image files: every transparent pixel gets a colour that continues the opaque part,\
 for the edge padding of texture atlases and the extension of cut-outs. PNG, TIFF, OpenEXR and more, at 8 and 16\
 bits, half and float.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
# The libraries the tool and the module link (OpenImageIO, the C++ runtime)
# become the package's dependencies, through dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS man-db)
# The tool and its module only: the GIMP plug-in (component gimp) is installed
# by make install, not shipped in this package, which would then need GIMP.
# A package of one piece installs every component unless told which: the
# project's Unspecified component alone.
set(CPACK_COMPONENTS_ALL Unspecified)
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};Unspecified;/")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_SOURCE_DIR}/build/package)
include(CPack)
