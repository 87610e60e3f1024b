package main

import (
	"net/http"

	"github.com/gorilla/websocket"
)

var upgrader = websocket.Upgrader{Subprotocols: []string{"websock-roaming"}}

func accept(w http.ResponseWriter, r *http.Request) (connection, error) {
	c, err := upgrader.Upgrade(w, r, nil)
	if err != nil {
		return connection{}, err
	}
	return connection{
		read: func() ([]byte, error) {
			_, request, err := c.ReadMessage()
			return request, err
		},
		writeJSON: c.WriteJSON,
		writeText: func(text string) error {
			return c.WriteMessage(websocket.TextMessage, []byte(text))
		},
	}, nil
}
