{
  "jsonrpc": "2.0",
  "method": "getEvents",
  "id": "0",
  "params": {
    "deviceData": {
      "id": "",
      "platform": "linux"
    }
  }
}
