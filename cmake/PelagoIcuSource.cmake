# ICU's converters, built from its source and linked statically: a Mac has no ICU that programs may link.
set(PELAGO_ICU_SOURCE "" CACHE PATH "ICU 72.1's source: icu4c's archive, or the folder icu that is in it")
if(NOT EXISTS "${PELAGO_ICU_SOURCE}")
    message(FATAL_ERROR "No source of ICU: set PELAGO_ICU_SOURCE to icu4c 72.1's archive, or to the folder icu in it "
                        "(or PELAGO_ICU44 to a folder with ICU 4.4's libraries)")
endif()
set(icu ${PELAGO_ICU_SOURCE})
if(NOT IS_DIRECTORY ${icu})
    # An archive is unpacked once; its checksum is in the folder's name.  The folder gets that name only after
    # everything was unpacked.
    file(SHA256 ${PELAGO_ICU_SOURCE} sum)
    set(unpacked ${PROJECT_BINARY_DIR}/icu/source-${sum})
    if(NOT EXISTS ${unpacked})
        file(REMOVE_RECURSE ${unpacked}.part)
        file(MAKE_DIRECTORY ${unpacked}.part)
        file(ARCHIVE_EXTRACT INPUT ${PELAGO_ICU_SOURCE} DESTINATION ${unpacked}.part
             PATTERNS icu/LICENSE icu/source/common/* icu/source/data/in/icudt72l.dat)
        file(RENAME ${unpacked}.part ${unpacked})
    endif()
    set(icu ${unpacked}/icu)
endif()
set(numbers ${icu}/source/common/unicode/uvernum.h)
if(EXISTS ${numbers})
    file(STRINGS ${numbers} version REGEX "define U_ICU_VERSION \"")
endif()
if(NOT version MATCHES "\"72\\.1\"")
    message(FATAL_ERROR "${PELAGO_ICU_SOURCE} is not the source of ICU 72.1, which Linux has: its converters are to be the same")
endif()

# The sources that conversions need: the group "conversion" in source/test/depstest/dependencies.txt and all
# groups that it depends on, except the data.
set(names appendable charstr cmemory cstring cwchar patternprops putil restrace sharedobject stringpiece uarrsort
    ucln_cmn ucmndata ucnv ucnv2022 ucnv_bld ucnv_cb ucnv_cnv ucnv_ct ucnv_err ucnv_ext ucnv_io ucnv_lmb ucnv_u16
    ucnv_u32 ucnv_u7 ucnv_u8 ucnvbocu ucnvhz ucnvisci ucnvlat1 ucnvmbcs ucnvscsu udata udatamem udataswp uenum uhash
    uinvchar umapfile umath umutex unistr uobject ustr_cnv ustrenum ustrfmt ustring ustrtrns utf_impl util utrace)
list(TRANSFORM names REPLACE "(.+)" "${icu}/source/common/\\1.cpp" OUTPUT_VARIABLE sources)
add_library(pelago_icu_code STATIC ${sources})
set(PELAGO_ICU_SUFFIX _72_pelago)
# ICU's names get a suffix, so that a program may link another ICU 72, too.  Without ICU's file functions
# (UCONFIG_NO_FILE_IO) this build needs no <tzfile.h> and opens no files.
target_include_directories(pelago_icu_code SYSTEM PUBLIC $<BUILD_INTERFACE:${icu}/source/common>)
target_compile_definitions(pelago_icu_code
    PUBLIC $<BUILD_INTERFACE:U_STATIC_IMPLEMENTATION> $<BUILD_INTERFACE:U_LIB_SUFFIX_C_NAME=_pelago>
    PRIVATE U_COMMON_IMPLEMENTATION U_ENABLE_DYLOAD=0 UCONFIG_NO_FILE_IO=1)
target_compile_options(pelago_icu_code PRIVATE -w) # its warnings are for its own authors
set_target_properties(pelago_icu_code PROPERTIES CXX_CLANG_TIDY "")
pelago_icu_data(pelago_icu_code icudt_pelago72_dat ${icu}/source/data/in/icudt72l.dat ${PELAGO_ICU_CONVERTERS})
set_target_properties(pelago_icu_code PROPERTIES OUTPUT_NAME pelago_icu EXPORT_NAME icuCode)
target_link_libraries(pelago_icu INTERFACE pelago_icu_code)
set(PELAGO_ICU_LICENCE ${icu}/LICENSE)
