module example.com/sample

go 1.21
