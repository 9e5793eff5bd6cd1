// The tracking snippet: tells the site's own access log how long a page had the visitor's attention. No cookie, no
// identifier, no third party: the whole message is one request, /tarn-b?p=<path>&t=<seconds>, answered by an empty 204.
(function () {
    "use strict";

    var visibleSince = document.visibilityState === "visible" ? performance.now() : null;

    function report() {
        if (visibleSince === null) {
            return;
        }
        var seconds = (performance.now() - visibleSince) / 1000;
        visibleSince = null;
        if (seconds < 0.1) {
            return;
        }
        var url = "/tarn-b?p=" + encodeURIComponent(location.pathname) + "&t=" + seconds.toFixed(1);
        if (!navigator.sendBeacon || !navigator.sendBeacon(url)) {
            fetch(url, { method: "POST", keepalive: true }).catch(function () {});
        }
    }

    // A tab that is hidden may never be heard of again, so each stretch of attention is reported when it ends.
    document.addEventListener("visibilitychange", function () {
        if (document.visibilityState === "hidden") {
            report();
        } else if (visibleSince === null) {
            visibleSince = performance.now();
        }
    });
    window.addEventListener("pagehide", report);
    window.addEventListener("pageshow", function (event) {
        if (event.persisted && visibleSince === null) {
            visibleSince = performance.now();
        }
    });
}());
