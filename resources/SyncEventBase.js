{
  "jsonrpc": "2.0",
  "method": "syncEvent",
  "id": "0",
  "params": {
    "deviceData": {
      "os": "",
      "lang": "",
      "id": "",
      "idfv": "",
      "dnt": false,
      "hardware": "",
      "connectionType": "unknown",
      "platform": "linux"
    },
    "appInfo": {
      "appInstallTime": "",
      "sdkVersion": ""
    }
  }
}
