{
  "jsonrpc": "2.0",
  "id": "",
  "result": {
    "status": "ok"
  }
}
