import Host

// The result is the exit status: 0 for the update that is on offer.
UpdateChecker {
    productCode: "DEMO"
    onUpdateAvailable: (version, url) =>
        Qt.exit(version === "1.5.0" && url.toString().startsWith(server) ? 0 : 1)
    onUpToDate: Qt.exit(2)
    onFailed: message => {
        console.error(message)
        Qt.exit(3)
    }
    onReady: check("1.4.0", "stable")
}
