# The public headers, flat under <korvane/...> in the build tree as they are once installed.
set(KORVANE_PUBLIC_HEADERS
    Sources/LOG/COMMON_LOG/iAp2LogUtil.h
    Sources/LOG/EXTERNEL_LOG/Quilmar/iAP2ExtLog.h
    Sources/UTILS/ByteArray.h
    Sources/UTILS/DataQueueList.h
    Sources/UTILS/SharedContext.h
    Sources/UTILS/iAP2ListImpl.h
    Sources/UTILS/iAP2MsgBoxImpl.h
    Sources/UTILS/iAP2MsgHandler.h
    Sources/UTILS/iAP2Mutex.h
    Sources/UTILS/iAP2Thread.h
    Sources/UTILS/iAP2Utils.h
    Sources/UTILS/iAp2Marshal.h
    Sources/UTILS/utils.h)

set(KORVANE_BUILD_INCLUDE_DIR "${PROJECT_BINARY_DIR}/include")
file(MAKE_DIRECTORY "${KORVANE_BUILD_INCLUDE_DIR}/korvane")
foreach(header IN LISTS KORVANE_PUBLIC_HEADERS)
  get_filename_component(name "${header}" NAME)
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${header}" "${KORVANE_BUILD_INCLUDE_DIR}/korvane/${name}"
       SYMBOLIC)
endforeach()
