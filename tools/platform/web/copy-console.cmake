# Copies the page and the chart library into DEST; run at every build, so a
# page edit or an install-deps run after configuring shows at the next build.
set(uplot ${SRC}/node_modules/uplot)
file(MAKE_DIRECTORY ${DEST}/js)
file(COPY ${SRC}/index.html ${SRC}/console.css DESTINATION ${DEST})
file(GLOB scripts ${SRC}/js/*.js)
file(COPY ${scripts} DESTINATION ${DEST}/js)
if(EXISTS ${uplot}/dist/uPlot.iife.min.js)
  file(COPY ${uplot}/dist/uPlot.iife.min.js ${uplot}/dist/uPlot.min.css DESTINATION ${DEST})
  file(COPY_FILE ${uplot}/LICENSE ${DEST}/uPlot.LICENSE ONLY_IF_DIFFERENT)
else()
  message(WARNING "uPlot is not installed (scripts/install-deps installs it): the console will draw no charts")
endif()
