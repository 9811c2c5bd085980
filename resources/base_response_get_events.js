{
  "jsonrpc": "2.0",
  "id": "",
  "result": {
    "batchInterval": 2000
  }
}
