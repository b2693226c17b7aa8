# shellcheck shell=bash
# For ./dev, which sources this: its `say` tells what is wrong.

# The script that plays HTTP Live Streaming in browsers that don't by themselves, from the npm registry.
hls_js=build/hls.js/package/dist/hls.min.js
fetch_hls_js() {
    local version=1.5.20 archive=build/hls.js/hls.js.tgz
    local sha512=uu0VXUK52JhihhnN/MVVo1lvqNNuhoxkonqgO3IpjvQiGpJBdIXMGkofjQb/j9zvV7a1SW8U9g1FslWx/1HOiQ==
    [ ! -f "$hls_js" ] || return 0
    mkdir -p build/hls.js
    curl -fsS --retry 3 -o "$archive" "https://registry.npmjs.org/hls.js/-/hls.js-$version.tgz" || return 1
    [ "$(openssl dgst -sha512 -binary "$archive" | base64 -w0)" = $sha512 ] || {
        say "$archive isn't the file that was expected."
        return 1
    }
    tar -xzf "$archive" -C build/hls.js package/dist/hls.min.js
}
